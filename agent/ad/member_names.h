// SPDX-License-Identifier: Apache-2.0
// What people are called in memberUid, remembered for a short while.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "vorn/clock.h"

namespace vexagent {

// Safe for several threads.
class MemberNames {
  public:
    // The clock outlives it.
    explicit MemberNames(const vorn::SteadyClock& clock) : m_clock(clock) {}

    // The name of somebody by the lower-case DN: a minute long, or ten seconds for somebody
    // who does not count and has no name. Nothing for one who is not known.
    std::optional<std::string> find(const std::string& dn) const;
    void keep(const std::string& dn, const std::string& name);

    // The people whose primary group has this RID in a domain, where they are many:
    // everybody, most often. Remembered for twenty times as long as it took to read them.
    std::optional<std::vector<std::string>> primaries(const std::string& domain,
                                                      const std::string& rid) const;
    void keepPrimaries(const std::string& domain, const std::string& rid,
                       const std::vector<std::string>& names, vorn::Moment::duration took);

    static constexpr std::size_t kMostPeople = 200'000;  // more are forgotten, all of them
    static constexpr std::size_t kMany = 500;            // only more than these are worth it
    static constexpr std::size_t kMostPrimaries = 16;    // lists of them

  private:
    struct Known {
        std::string name;
        vorn::Moment until{};
    };
    struct Primaries {
        std::vector<std::string> names;
        vorn::Moment until{};
    };

    const vorn::SteadyClock& m_clock;
    mutable std::mutex m_mutex;
    std::unordered_map<std::string, Known> m_people;  // by lower-case DN; guarded by m_mutex, as the next
    std::map<std::string, Primaries> m_primaries;     // by domain and RID
};

}  // namespace vexagent
