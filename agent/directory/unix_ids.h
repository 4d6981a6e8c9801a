// SPDX-License-Identifier: Apache-2.0
// The numbers by which hosts know people and groups.
//
// A host takes them from the directory as they are. A person whose uidNumber is 0 would
// be root on every host. A person with the number of a host's own service would be that
// service. So the lowest number is a setting. An object with a lower number is no UNIX
// entry, nor is one whose number some readers would read in another way.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace vexagent {

class UnixIds {
  public:
    explicit UnixIds(std::uint32_t least = 1) : m_least(least) {}

    // Whether it is a decimal number from the lowest on, and none that means "nobody" to
    // the system.
    bool allows(std::string_view number) const;

    // Whether one of an object's numbers is not allowed. That is told to the log once for
    // each object.
    bool refuses(std::string_view dn, std::string_view attribute,
                 std::span<const std::string_view> numbers) const;

  private:
    std::uint32_t m_least;
};

// The attribute whose number stands for an object of this category; empty for a category
// that has none.
std::string_view ownIdAttribute(std::string_view category);

}  // namespace vexagent
