// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/schema.h"

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
AdSchema::Current AdSchema::current() {
    const std::lock_guard lock(m_mutex);
    const Moment now = m_network.clock().now();
    const bool due = now >= m_until;
    if (due && m_schema) m_until = now + kTryAgain;
    return {m_schema, due};
}

AdSchema::Known AdSchema::keep(Schema schema, milliseconds time) {
    const std::lock_guard lock(m_mutex);
    m_schema = std::make_shared<const Schema>(std::move(schema));
    m_until = m_network.clock().now() + time;
    return m_schema;
}

void AdSchema::complain(const std::string& why) const {
    AGENT_LOG(vorn::Logger::kWarning, "%s does not tell its schema: secrets are known by name only%s%s",
              m_domain.name.c_str(), why.empty() ? "" : ": ", why.c_str());
}

Expected<AdSchema::Known, LdapFailure> AdSchema::get(const Deadline& deadline) {
    const Current current = this->current();
    if (!current.due) return current.schema;
    auto fresh = read(deadline);
    if (fresh && !fresh->names().empty()) return keep(std::move(*fresh), kKeep);
    if (current.schema) return current.schema;
    if (!fresh && fresh.error().lost) return vorn::unexpected(fresh.error());
    complain(fresh ? "" : fresh.error().text);
    return keep(fresh ? std::move(*fresh) : Schema(), kTryAgain);
}

Expected<Schema, LdapFailure> AdSchema::read(const Deadline& deadline) {
    const auto info = m_network.describe(m_domain, deadline);
    if (!info) return vorn::unexpected(info.error());
    const std::string root = "CN=Schema,CN=Configuration," + (*info)->forest;
    const auto aggregates =
        readOne(m_network, m_domain,
                {"CN=Aggregate," + root, LDAP_SCOPE_BASE, "(objectClass=*)", {"attributeTypes"}}, deadline);
    if (!aggregates) return vorn::unexpected(aggregates.error());
    const auto confidential =
        readOne(m_network, m_domain,
                {root,
                 LDAP_SCOPE_ONELEVEL,
                 "(&(objectClass=attributeSchema)(searchFlags:1.2.840.113556.1.4.803:=128))",
                 {"lDAPDisplayName"}},
                deadline);
    if (!confidential) return vorn::unexpected(confidential.error());
    Schema schema;
    for (const Entry& aggregate : *aggregates) addAttributes(aggregate, schema);
    for (const Entry& attribute : *confidential)
        schema.addConfidential(std::string(attribute.first("lDAPDisplayName")));
    return schema;
}

}  // namespace vexagent
