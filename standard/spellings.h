// SPDX-License-Identifier: Apache-2.0
// Names that the directory does not find by their prepared form (RFC 4518).
//
// slapd fetches entries by their names as prepared: "½ Half" is asked for by three plain
// characters. The directory compares what it has as it is, and finds nobody. So the names
// of that kind that clients were shown are remembered, with the newest ones as a rule.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "vorn/lock.h"

namespace standard {

// Safe for use by several threads.
class Spellings {
  public:
    explicit Spellings(std::size_t most = 8192) : m_most(most) {}

    // A DN and its normal form. Costs nothing for a name of another kind.
    void learn(std::string_view dn, std::string_view normal);

    // The DN as the directory has it, if it was learned.
    std::optional<std::string> of(std::string_view normal);

  private:
    const std::size_t m_most;
    vorn::ReaderWriterLock m_lock;
    std::map<std::string, std::string, std::less<>> m_names;  // by normal form; guarded by m_lock
};

// This process's.
Spellings& spellings();

}  // namespace standard
