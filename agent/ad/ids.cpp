// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/ids.h"

#include "agent/directory/identifiers.h"
#include "vorn/hash.h"

namespace vexagent {

std::string accountSid(std::string_view domainSid, std::uint32_t rid) {
    // A domain's SID is an account's without the last sub-authority.
    std::string sid(domainSid);
    if (sid.size() < 8) return {};
    ++sid[1];
    for (int at = 0; at < 4; ++at) sid.push_back(static_cast<char>(rid >> 8 * at & 0xff));
    return sid;
}

Ids::Ids(const IdOptions& options, std::string domainSid)
    : m_options(options), m_domainSid(std::move(domainSid)) {
    const std::string text = sidText(m_domainSid);
    if (text.empty()) return;
    const std::uint32_t slice = vorn::murhash()(text) % options.slices;
    const std::uint64_t first = options.first + std::uint64_t{slice} * options.sliceSize;
    if (first + options.sliceSize <= UINT32_MAX) m_first = static_cast<std::uint32_t>(first);
}

std::optional<std::uint32_t> Ids::idOf(std::string_view sid) const {
    const auto rid = sidRid(sid);
    if (!enabled() || !rid || *rid >= m_options.sliceSize || sid != sidWith(*rid)) return std::nullopt;
    return *m_first + *rid;
}

std::string Ids::sidOf(std::uint32_t id) const {
    if (!enabled() || id < *m_first || id - *m_first >= m_options.sliceSize) return {};
    return sidWith(id - *m_first);
}

std::string Ids::homeOf(const std::string& name) const {
    std::string home = m_options.home;
    for (std::size_t at = 0; (at = home.find("%u", at)) != std::string::npos; at += name.size())
        home.replace(at, 2, name);
    return home;
}

}  // namespace vexagent
