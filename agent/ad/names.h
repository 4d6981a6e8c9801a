// SPDX-License-Identifier: Apache-2.0
// Which object a name means.
#pragma once

#include <string>
#include <vector>

#include "agent/ad/network.h"
#include "agent/ad/options.h"

namespace vexagent {

// The objects that a name may mean.
struct NamedEntries {
    std::vector<Entry> real;       // by their own DN, principal name or account name
    std::vector<Entry> rewritten;  // by a DN whose leading "cn=" was rewritten

    std::size_t count() const { return real.size() + rewritten.size(); }
    // The one object, or null when there is none or more than one.
    Entry* only();
};

// Reads entries of one domain by names, with these attributes. Everything that it is given
// by reference outlives it.
class NameFinder {
  public:
    NameFinder(Network& network, const Place& domain, const AdOptions& options,
               std::vector<std::string> attributes, const Deadline& deadline)
        : m_network(network),
          m_domain(domain),
          m_options(options),
          m_attributes(std::move(attributes)),
          m_deadline(deadline) {}

    using Found = Expected<NamedEntries, LdapFailure>;

    // By a DN of this domain. A DN whose first RDN is "cn=VALUE" may have been
    // rewritten: it then means the objects directly below its parent that hold VALUE
    // in one of the login attributes. These are looked for only when wanted, or when
    // the DN itself does not exist.
    enum class Rewritten { IfNotReal, Always };
    Found byDn(const std::string& dn, Rewritten rewritten) const;

    // By a DN, name@realm or DOMAIN\name. name@realm is a userPrincipalName, or else
    // the sAMAccountName where the realm is the domain; DOMAIN is the domain's DNS
    // name, the first label of it, or its short name. Anything else is nobody's.
    Found byLoginName(const std::string& name) const;

  private:
    Expected<bool, LdapFailure> isOwnName(std::string_view domain) const;
    Found find(const char* attribute, const std::string& value) const;
    Found byPrincipal(const std::string& name) const;
    Found byAccount(const std::string& name, std::size_t backslash) const;
    std::vector<LdapSearch> rewrittenFrom(const std::string& dn) const;
    Found collect(const std::string& dn, const std::vector<LdapSearch>& searches) const;

    Network& m_network;
    const Place m_domain;
    const AdOptions& m_options;
    const std::vector<std::string> m_attributes;
    const Deadline m_deadline;
};

}  // namespace vexagent
