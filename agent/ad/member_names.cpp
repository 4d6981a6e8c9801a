// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/member_names.h"

#include "agent/ad/membership.h"

namespace vexagent {
namespace {

constexpr std::chrono::seconds kRememberTime{60};
constexpr std::chrono::seconds kRememberNobody{10};

}  // namespace

std::optional<std::string> MemberNames::find(const std::string& dn) const {
    const std::lock_guard lock(m_mutex);
    const auto known = m_people.find(dn);
    if (known == m_people.end() || known->second.until < m_clock.now()) return std::nullopt;
    return known->second.name;
}

void MemberNames::keep(const std::string& dn, const std::string& name) {
    const std::lock_guard lock(m_mutex);
    if (m_people.size() >= kMostPeople) m_people.clear();
    m_people[dn] = {name, m_clock.now() + (name.empty() ? kRememberNobody : kRememberTime)};
}

std::optional<std::vector<std::string>> MemberNames::primaries(const std::string& domain,
                                                               const std::string& rid) const {
    const std::lock_guard lock(m_mutex);
    const auto known = m_primaries.find(domain + " " + rid);
    if (known == m_primaries.end() || known->second.until < m_clock.now()) return std::nullopt;
    return known->second.names;
}

void MemberNames::keepPrimaries(const std::string& domain, const std::string& rid,
                                const std::vector<std::string>& names, vorn::Moment::duration took) {
    if (names.size() <= kMany) return;
    const std::lock_guard lock(m_mutex);
    if (m_primaries.size() >= kMostPrimaries) m_primaries.clear();
    m_primaries[domain + " " + rid] = {names, m_clock.now() + kReadRarely * took};
}

}  // namespace vexagent
