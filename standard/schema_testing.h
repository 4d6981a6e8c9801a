// SPDX-License-Identifier: Apache-2.0
// A small schema for tests: what people, groups and places take.
#pragma once

#include <map>
#include <utility>

#include "standard/schema.h"
#include "vorn/strings.h"

namespace standard {

class SmallSchema final : public Schema {
  public:
    SmallSchema() {
        for (const char* name : {"cn", "sn", "ou", "uid", "mail", "title", "sAMAccountName", "gecos"})
            addAttribute(name, Match::Folded);
        for (const char* name : {"homeDirectory", "memberUid"}) addAttribute(name, Match::Exact);
        for (const char* name : {"uidNumber", "gidNumber", "shadowMin", "shadowMax"})
            addAttribute(name, Match::Number);
        addAttribute("member", Match::Dn);
        for (const char* name : {"objectClass", "userPassword"}) addAttribute(name, Match::Other);
        for (const char* name :
             {"entryUUID", "createTimestamp", "modifyTimestamp", "structuralObjectClass", "entryDN"})
            addAttribute(name, Match::Other, true);
        m_attributes["cn"].types = m_attributes["sn"].types = {"cn", "name"};
        m_attributes["sn"].types[0] = "sn";
        m_attributes["commonName"] = m_attributes["cn"];

        addClass({"top", false, {}, {"objectClass"}, {}});
        addClass({"person", true, {"top"}, {"objectClass", "sn", "cn"}, {"userPassword"}});
        addClass({"inetOrgPerson",
                  true,
                  {"top", "person"},
                  {"objectClass", "sn", "cn"},
                  {"uid", "mail", "title"}});
        addClass({"posixAccount",
                  false,
                  {"top"},
                  {"cn", "uid", "uidNumber", "gidNumber", "homeDirectory"},
                  {"gecos"}});
        addClass({"shadowAccount", false, {"top"}, {"uid"}, {"shadowMin", "shadowMax"}});
        addClass({"posixGroup", false, {"top"}, {"gidNumber"}, {"memberUid"}});
        addClass({"groupOfNames", true, {"top"}, {"member", "cn"}, {}});
        addClass({"groupOfMembers", true, {"top"}, {"cn"}, {"member"}});
        addClass({"device", true, {"top"}, {"cn"}, {}});
        addClass({"organizationalUnit", true, {"top"}, {"ou"}, {}});
        addClass({"container", true, {"top"}, {"cn"}, {}});
        addClass({"domain", true, {"top"}, {}, {}});
        addClass({"adObject", false, {"top"}, {}, {"sAMAccountName"}});
    }

    std::optional<AttributeFacts> findAttribute(std::string_view name) const override {
        return find(m_attributes, name);
    }
    std::optional<ClassFacts> findClass(std::string_view name) const override {
        return find(m_classes, name);
    }

    void addAttribute(const std::string& name, Match match, bool operational = false) {
        m_attributes[name] = {name, match, operational, {name}};
    }
    void addClass(ClassFacts facts) {
        const std::string name = facts.name;
        m_classes[name] = std::move(facts);
    }

  private:
    template <typename Facts>
    using Table = std::map<std::string, Facts, vorn::StringCaseLessThan>;

    template <typename Facts>
    static std::optional<Facts> find(const Table<Facts>& table, std::string_view name) {
        const auto found = table.find(name);
        return found == table.end() ? std::nullopt : std::optional<Facts>(found->second);
    }

    Table<AttributeFacts> m_attributes;
    Table<ClassFacts> m_classes;
};

}  // namespace standard
