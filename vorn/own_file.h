// Files with secrets that this process alone may read.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>

namespace vorn {

// A file that cannot be read, or that others could have read or written; what() says
// which and why.
class OwnFileError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The whole content of a regular file that belongs to this process's user and is closed to
// everybody else. False for one that is not there; throws OwnFileError for any other
// that is not as said, or has more than the most bytes. Whoever reads a secret wipes it.
bool readOwnFile(const std::string& file, std::size_t most, std::string& content);

// The first line of such a file, with nothing of the file left in memory beside it.
// False when there is no file, or nothing in that line.
bool readSecretLine(const std::string& file, std::string& line);

}  // namespace vorn
