// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/domains.h"

#include "agent/directory/log.h"
#include "vorn/dn.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

constexpr milliseconds kLearnEvery{600'000};
constexpr milliseconds kLearnSoon{60'000};  // when the joined domain could not be asked
constexpr milliseconds kRefreshTime{2000};

Result unavailable(const std::string& text) {
    return Result::ldap(VEX_UNAVAILABLE, LDAP_UNAVAILABLE, text);
}

}  // namespace

Domains::Domains(Network& network, const AdOptions& options)
    : m_network(network), m_options(options), m_joined{options.domain} {
    m_network.tend([this] { refresh(); });
}

Domains::~Domains() {
    m_network.tend({});
}

Expected<std::optional<Place>, Result> Domains::named(const std::string& name, const Deadline& deadline) {
    if (name.empty() || vorn::equalsIgnoreCase(name, m_joined.name)) return m_joined;
    const auto known = names(deadline);
    if (!known) {
        AGENT_LOG(vorn::Logger::kWarning, "%s cannot be asked whether there is a domain \"%s\": %s",
                  m_joined.name.c_str(), vorn::printable(name).c_str(), known.error().text.c_str());
        return vorn::unexpected(unavailable("the joined domain cannot be asked which domains there are"));
    }
    if (!(*known)->contains(name)) return std::nullopt;
    return Place{vorn::lower(name), Place::Kind::Domain, (*known)->forest()};
}

Expected<Place, Result> Domains::existing(const std::string& name, const Deadline& deadline) {
    auto place = named(name, deadline);
    if (!place) return vorn::unexpected(place.error());
    if (!*place) return vorn::unexpected(unavailable("there is no such domain"));
    return std::move(**place);
}

Expected<Place, Result> Domains::catalog(const Deadline& deadline) {
    const auto info = m_network.describe(m_joined, deadline);
    if (!info) return vorn::unexpected(resultOf(info.error()));
    return Place{vorn::lower(vorn::DN::domainFromDN((*info)->forest)), Place::Kind::Catalog};
}

// ------------------------------------------------------------- which there are

// Requests wait for this once: what has been learned is learned anew apart from them.
Expected<Domains::Names, LdapFailure> Domains::names(const Deadline& deadline) {
    Names names;
    {
        const std::lock_guard lock(m_mutex);
        names = m_names;
    }
    return names ? Expected<Names, LdapFailure>(names) : learn(deadline);
}

Expected<Domains::Names, LdapFailure> Domains::learn(const Deadline& deadline) {
    const auto info = m_network.describe(m_joined, deadline);
    if (!info) return vorn::unexpected(info.error());
    const DomainInfo& joined = **info;
    const auto partitions = readOne(m_network, m_joined,
                                    {"CN=Partitions,CN=Configuration," + joined.forest, LDAP_SCOPE_ONELEVEL,
                                     "(objectCategory=crossRef)", KnownDomains::kPartitionAttributes},
                                    deadline);
    if (!partitions) return vorn::unexpected(partitions.error());
    auto fresh = std::make_shared<KnownDomains>(vorn::DN::domainFromDN(joined.forest));
    for (const Entry& partition : *partitions) fresh->addPartition(partition);
    if (const auto added = addTrusts(joined.root, *fresh, deadline); !added)
        return vorn::unexpected(added.error());
    const std::lock_guard lock(m_mutex);
    m_names = fresh;
    m_learnAgain = m_network.clock().now() + kLearnEvery;
    return m_names;
}

// With the machine's tickets only.
Expected<Done, LdapFailure> Domains::addTrusts(const std::string& root, KnownDomains& names,
                                               const Deadline& deadline) {
    if (m_options.transport != Transport::Gssapi) return Done();
    const auto trusts = readOne(m_network, m_joined,
                                {"CN=System," + root, LDAP_SCOPE_ONELEVEL, "(objectClass=trustedDomain)",
                                 KnownDomains::kTrustAttributes},
                                deadline);
    if (!trusts && !isMissing(trusts.error())) return vorn::unexpected(trusts.error());
    if (trusts)
        for (const Entry& trust : *trusts) names.addTrust(trust);
    return Done();
}

// Where the joined domain cannot be asked, what it has said before counts.
void Domains::refresh() {
    {
        const std::lock_guard lock(m_mutex);
        const Moment now = m_network.clock().now();
        if (!m_names || now < m_learnAgain) return;
        m_learnAgain = now + kLearnSoon;
    }
    if (const auto names = learn(Deadline(m_network.clock(), kRefreshTime)); !names)
        AGENT_LOG(vorn::Logger::kWarning, "%s cannot be asked which domains there are: %s",
                  m_joined.name.c_str(), names.error().text.c_str());
}

}  // namespace vexagent
