// SPDX-License-Identifier: Apache-2.0
// Tables of text keys and text values, read from properties files.
//
// The syntax is that of java.util.Properties, in UTF-8:
//   - a line is "key = value", "key: value" or "key value"; blanks around the
//     separator do not count, nor do blanks at the start of a line;
//   - a line that begins with "#" or "!" is a comment, an empty line is nothing;
//   - a backslash at the end of a line joins it with the next, whose leading
//     blanks are dropped;
//   - "\t", "\n", "\r", "\f", "\\" and "\uXXXX" (a UTF-16 unit, surrogate pairs
//     joined) are escapes in keys and values; a backslash before any other
//     character stands for that character, so that keys can hold "=", ":" and
//     blanks;
//   - the value is the rest of the line, trailing blanks included;
//   - a key given twice keeps its last value.
// Unlike java.util.Properties, which guesses, a malformed line is an error: a
// line without a key, a broken "\u" escape or an unpaired surrogate, a NUL byte
// (escaped or not), text that is not UTF-8. A byte order mark at the beginning is
// skipped. Files above 16 MiB are refused.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "vorn/exception.h"
#include "vorn/lock.h"
#include "vorn/strings.h"

namespace vorn {

// A properties file that cannot be read. what() is "FILE: REASON" or
// "FILE:LINE: REASON"; code() is the errno value, or 0 for malformed text.
class PropertiesException : public VORNException {
  public:
    PropertiesException(const std::string& message, int code)
        : VORNException(message, "PropertiesException", code) {}
};

// Keys are compared without regard to (ASCII) case; values keep theirs. Safe for
// use by several threads: every look-up holds the object's own lock.
class Properties {
  public:
    using Map = std::map<std::string, std::string, StringCaseLessThan>;

    // Adds the entries of a file. With optional set, a file that does not exist
    // adds nothing. Throws PropertiesException; the table is then unchanged.
    void load(const std::string& fileName, bool optional);

    // Adds the entries of a text; origin names it in complaints.
    void parse(std::string_view text, const std::string& origin);

    // Takes over another table's entries in place of its own.
    void assign(Properties&& other);

    // The key's value, if the table holds the key.
    std::optional<std::string> find(std::string_view key) const;
    // The key's value, or the fallback.
    std::string get(std::string_view key, std::string_view fallback) const;

    // A copy of the entries whose key begins with the prefix (ignoring case),
    // keys kept whole. Never null.
    std::unique_ptr<Map> getMap(std::string_view prefix) const;

    // Where the key was set, as "FILE:LINE"; empty for an unknown key.
    std::string origin(std::string_view key) const;

    // Another number after every change, and for every other table: what was read
    // while it was the same still holds.
    std::uint64_t version() const { return m_version.load(std::memory_order_acquire); }

    std::size_t size() const;
    bool empty() const { return size() == 0; }

    // Writes every entry to standard error, "key = value" a line.
    void dump() const;

  private:
    // The values by key: a look-up by hash costs a third of one by order.
    using Index = std::unordered_map<std::string_view, const std::string*, StringCaseHash, StringCaseEqual>;

    static std::uint64_t nextVersion();

    std::atomic<std::uint64_t> m_version = nextVersion();
    mutable Lock m_lock;
    Map m_entries;  // guarded by m_lock, as is all below
    Index m_index;  // of m_entries
    Map m_origins;  // the same keys, each with its "FILE:LINE"
};

}  // namespace vorn
