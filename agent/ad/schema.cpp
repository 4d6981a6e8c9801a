#include "agent/ad/schema.h"

#include "agent/ad/net/ranges.h"
#include "agent/ad/objects.h"
#include "agent/directory/log.h"

namespace vexagent {
namespace {

constexpr milliseconds kKeep{3'600'000};
constexpr milliseconds kTryAgain{60'000};

// The number and the name in "( 1.2.3 NAME 'cn' SYNTAX ...".
bool readDescription(std::string_view description, std::string& number, std::string& name) {
    const std::size_t begin = description.find_first_of("0123456789");
    const std::size_t at = description.find("NAME '");
    if (begin == std::string_view::npos || at == std::string_view::npos || at < begin) return false;
    number = description.substr(begin, description.find(' ', begin) - begin);
    name = description.substr(at + 6, description.find('\'', at + 6) - at - 6);
    return !name.empty();
}

void addAttributes(const Entry& aggregate, Schema& schema) {
    const Attribute* types = aggregate.find("attributeTypes");
    if (types == nullptr) return;
    std::string number;
    std::string name;
    for (const std::string& description : types->values)
        if (readDescription(description, number, name)) schema.addAttribute(number, name);
}

}  // namespace

// One thread reads anew while the others go on with what there is.
std::shared_ptr<const Schema> AdSchema::current(bool& due) {
    const std::lock_guard lock(m_mutex);
    due = now() >= m_until;
    if (due && m_schema) m_until = now() + kTryAgain;
    return m_schema;
}

LdapStatus AdSchema::get(const Deadline& deadline, std::shared_ptr<const Schema>& schema) {
    bool due = false;
    schema = current(due);
    if (!due) return {};
    auto fresh = std::make_shared<Schema>();
    const LdapStatus status = read(deadline, *fresh);
    const bool known = status.ok() && !fresh->names().empty();
    if (!known && schema) return {};
    if (!status.ok() && status.lost) return status;
    if (!known)
        AGENT_LOG(vorn::Logger::kWarning, "%s does not tell its schema: secrets are known by name only%s%s",
                  m_domain.name().c_str(), status.ok() ? "" : ": ", status.text.c_str());
    schema = fresh;
    const std::lock_guard lock(m_mutex);
    m_schema = fresh;
    m_until = now() + (known ? kKeep : kTryAgain);
    return {};
}

LdapStatus AdSchema::read(const Deadline& deadline, Schema& schema) {
    std::shared_ptr<const DomainInfo> info;
    if (LdapStatus status = m_domain.info(deadline, info); !status.ok()) return status;
    const std::string root = "CN=Schema,CN=Configuration," + info->forest;
    const LdapSearch all = {"CN=Aggregate," + root, LDAP_SCOPE_BASE, "(objectClass=*)", {"attributeTypes"}};
    const LdapSearch confidential = {
        root,
        LDAP_SCOPE_ONELEVEL,
        "(&(objectClass=attributeSchema)(searchFlags:1.2.840.113556.1.4.803:=128))",
        {"lDAPDisplayName"}};
    return m_domain.run(deadline, [&](Domain::Lease& lease) {
        schema = {};
        std::vector<Entry> aggregates;
        LdapStatus status =
            lease->search(all, deadline, [&](Entry&& entry) { aggregates.push_back(std::move(entry)); });
        for (Entry& entry : aggregates) {
            if (status.ok()) status = readRanges(*lease, entry, deadline);
            if (status.ok()) addAttributes(entry, schema);
        }
        if (!status.ok()) return status;
        return lease->search(confidential, deadline, [&](Entry&& entry) {
            schema.addConfidential(std::string(entry.first("lDAPDisplayName")));
        });
    });
}

}  // namespace vexagent
