// SPDX-License-Identifier: Apache-2.0
#include "agent/embedded/zone.h"

#include <algorithm>
#include <set>
#include <unordered_set>

#include "agent/directory/identifiers.h"
#include "agent/directory/member_naming.h"
#include "agent/embedded/kinds.h"
#include "vex/vex.h"
#include "vorn/numbers.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

const char* const kPersonAttributes[] = {
    "objectClass",    "objectCategory", "uid",        "sAMAccountName", "uidNumber", "objectSid",
    "primaryGroupID", "member",         "objectGUID", "memberUid",      nullptr};

bool isGroup(const ldb_message* message) {
    return shortCategory(message) == "Group";
}

// Walks down from a group.
class Members {
  public:
    Members(Handle& handle, Naming naming) : m_handle(handle), m_naming(naming) {}

    void addGroup(const ldb_message* group) {
        addStored(group);
        addPrimary(group);
        const ldb_message_element* members = ldb_msg_find_element(group, "member");
        for (unsigned i = 0; members != nullptr && i < members->num_values; ++i) {
            const std::string_view dn = bytesOf(members->values[i]);
            if (m_seen.insert(vorn::lower(dn)).second) m_pending.emplace_back(dn);
        }
    }

    void walk() {
        while (!m_pending.empty()) {
            const std::string dn = std::move(m_pending.back());
            m_pending.pop_back();
            visit(dn);
        }
    }

    std::vector<std::string> names() {
        std::sort(m_names.begin(), m_names.end());
        m_names.erase(std::unique(m_names.begin(), m_names.end()), m_names.end());
        return std::move(m_names);
    }

  private:
    void visit(const std::string& text) {
        const Pool pool = newPool();
        ldb_dn* dn = ldb_dn_new(pool.get(), m_handle.ldb(), text.c_str());
        if (dn == nullptr || !ldb_dn_validate(dn)) return;
        const ldb_message* member = m_handle.read(pool.get(), dn, kPersonAttributes);
        if (member == nullptr) return;
        if (isGroup(member))
            addGroup(member);
        else
            addName(member);
    }

    void addName(const ldb_message* person) {
        std::string name = memberName(person, m_naming);
        if (!name.empty()) m_names.push_back(std::move(name));
    }

    void addStored(const ldb_message* group) {
        const ldb_message_element* stored = ldb_msg_find_element(group, "memberUid");
        for (unsigned i = 0; stored != nullptr && i < stored->num_values; ++i)
            m_names.emplace_back(bytesOf(stored->values[i]));
    }

    void addPrimary(const ldb_message* group) {
        const auto rid = sidRid(firstValue(group, "objectSid"));
        if (!rid) return;
        const std::string domain = sidWithRid(firstValue(group, "objectSid"), 0);
        m_handle.find("primaryGroupID", std::to_string(*rid), kPersonAttributes, [&](ldb_message* person) {
            if (sidWithRid(firstValue(person, "objectSid"), 0) == domain) addName(person);
            return true;
        });
    }

    Handle& m_handle;
    const Naming m_naming;
    std::unordered_set<std::string> m_seen;  // DNs, lower-cased
    std::vector<std::string> m_pending;
    std::vector<std::string> m_names;
};

// Walks up to the groups of a person.
class Groups {
  public:
    explicit Groups(Handle& handle) : m_handle(handle) {}

    void addPerson(const ldb_message* person) {
        m_pending.push_back(spelledDn(person->dn));
        const auto rid = vorn::parseNumber<std::uint32_t>(firstValue(person, "primaryGroupID"));
        if (rid) addHolders("objectSid", sidWithRid(firstValue(person, "objectSid"), *rid));
    }

    std::vector<std::string> walk() {
        while (!m_pending.empty()) {
            const std::string dn = std::move(m_pending.back());
            m_pending.pop_back();
            addHolders("member", dn);
        }
        return {m_guids.begin(), m_guids.end()};
    }

  private:
    void addHolders(const char* attribute, std::string_view value) {
        static const char* const kAttributes[] = {"objectClass", "objectCategory", "objectGUID", nullptr};
        m_handle.find(attribute, value, kAttributes, [&](ldb_message* group) {
            if (!isGroup(group)) return true;
            if (m_guids.emplace(firstValue(group, "objectGUID")).second)
                m_pending.push_back(spelledDn(group->dn));
            return true;
        });
    }

    Handle& m_handle;
    std::set<std::string> m_guids;
    std::vector<std::string> m_pending;
};

}  // namespace

std::string memberName(const ldb_message* message, Naming naming) {
    if (shortCategory(message) != AD_USER_CATEGORY) return {};
    return nameOfMember({firstValue(message, "uid"), firstValue(message, "sAMAccountName"),
                         !firstValue(message, "uidNumber").empty()},
                        naming);
}

std::vector<std::string> memberUids(Handle& handle, const ldb_message* group, Naming naming) {
    Members members(handle, naming);
    members.addGroup(group);
    members.walk();
    return members.names();
}

std::vector<std::string> groupsOf(Handle& handle, std::string_view name, Naming naming) {
    Groups groups(handle);
    const auto addIfNamed = [&](ldb_message* person) {
        if (withoutMark(memberName(person, naming)) == name) groups.addPerson(person);
        return true;
    };
    if (naming == Naming::Hosts) handle.find("uid", name, kPersonAttributes, addIfNamed);
    handle.find("sAMAccountName", name, kPersonAttributes, addIfNamed);
    return groups.walk();
}

}  // namespace vexagent
