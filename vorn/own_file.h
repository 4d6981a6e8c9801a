// SPDX-License-Identifier: Apache-2.0
// Files with secrets that this process alone may read.
#pragma once

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>

#include "vorn/secret.h"

namespace vorn {

// A file that cannot be read, or that others could have read or written; what() says
// which and why.
class OwnFileError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The whole content of a regular file that belongs to this process's user and is closed to
// everybody else. False for one that is not there; throws OwnFileError for any other
// that is not as said, or has more than the most bytes.
bool readOwnFile(const std::string& file, std::size_t most, Secret& content);

// The first line of such a file. Nothing when there is no file, or nothing in that line.
std::optional<Secret> readSecretLine(const std::string& file);

}  // namespace vorn
