// Which object a name means.
#pragma once

#include <string>
#include <vector>

#include "agent/ad/net/domain.h"

namespace vexagent {

// The objects that a name may mean.
struct NamedEntries {
    std::vector<Entry> real;       // by their own DN, principal name or account name
    std::vector<Entry> rewritten;  // by a DN whose leading "cn=" was rewritten

    std::size_t count() const { return real.size() + rewritten.size(); }
    // The one object, or null when there is none or more than one.
    Entry* only();
};

// Reads entries by names, with these attributes.
class NameFinder {
  public:
    NameFinder(Domain& domain, const AdOptions& options, std::vector<std::string> attributes,
               const Deadline& deadline)
        : m_domain(domain), m_options(options), m_attributes(std::move(attributes)), m_deadline(deadline) {}

    // By a DN of this domain. A DN whose first RDN is "cn=VALUE" may have been
    // rewritten: it then means the objects directly below its parent that hold VALUE
    // in one of the login attributes. These are looked for only when wanted, or when
    // the DN itself does not exist.
    enum class Rewritten { IfNotReal, Always };
    LdapStatus byDn(const std::string& dn, Rewritten rewritten, NamedEntries& found);

    // By a DN, name@realm or DOMAIN\name. name@realm is a userPrincipalName, or else
    // the sAMAccountName where the realm is the domain; DOMAIN is the domain's DNS
    // name, the first label of it, or its short name. Anything else is nobody's.
    LdapStatus byLoginName(const std::string& name, NamedEntries& found);

  private:
    LdapStatus find(const char* attribute, const std::string& value, std::vector<Entry>& found);
    LdapStatus byPrincipal(const std::string& name, NamedEntries& found);
    LdapStatus byAccount(const std::string& name, std::size_t backslash, NamedEntries& found);
    std::vector<LdapSearch> rewrittenFrom(const std::string& dn) const;
    LdapStatus collect(const std::string& dn, const std::vector<LdapSearch>& searches, NamedEntries& found);

    Domain& m_domain;
    const AdOptions& m_options;
    const std::vector<std::string> m_attributes;
    const Deadline m_deadline;
};

}  // namespace vexagent
