// SPDX-License-Identifier: Apache-2.0
// A small directory at a played agent, asked in the standard mode.
#pragma once

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "search/fixture_testing.h"
#include "standard/entries.h"
#include "standard/kinds_of_map.h"
#include "standard/operations.h"
#include "standard/schema_testing.h"
#include "translate/filter_builder_testing.h"
#include "vorn/thread.h"

#include "tests/standin/slapd_standin.h"

namespace standard {

// A request of one client. What it is made of lives as long.
class Asked {
  public:
    explicit Asked(standin::FakeConnection& connection) : m_operation(connection) {
        m_operation.suffix("DC=example,DC=com");
        berval lower = {m_lower.size(), m_lower.data()};
        m_normal[0] = lower;
        op()->o_bd->be_nsuffix = m_normal;
        op()->o_bd->be_dfltaccess = ACL_READ;
        op()->o_controls = m_controls;
        op()->ors_slimit = op()->ors_tlimit = SLAP_NO_LIMIT;
        op()->o_time = 0;
        slap_cids.sc_pagedResults = 3;
        slap_cids.sc_assert = 4;
        at("DC=example,DC=com", LDAP_SCOPE_SUBTREE);
    }

    Operation* op() { return m_operation.op(); }
    SlapReply* reply() { return m_operation.reply(); }

    Asked& at(const std::string& base, int scope) {
        berval text = {base.size(), const_cast<char*>(base.data())};
        berval normal{};
        dnNormalize(0, nullptr, nullptr, &text, &normal, nullptr);
        m_operation.dn(base, std::string(normal.bv_val, normal.bv_len));
        ch_free(normal.bv_val);
        op()->ors_scope = scope;
        return *this;
    }
    // With the schema's own descriptions, as slapd has it.
    Asked& where(const std::string& filter) {
        op()->ors_filter = described(m_builder.parse(filter));
        return *this;
    }
    Asked& wanting(const std::vector<std::string>& names) {
        m_texts = names;
        m_names.assign(names.size() + 1, {});
        const char* reason = nullptr;
        for (std::size_t i = 0; i < names.size(); ++i) {
            m_names[i].an_name = {m_texts[i].size(), m_texts[i].data()};
            slap_str2ad(names[i].c_str(), &m_names[i].an_desc, &reason);
        }
        op()->ors_attrs = m_names.data();
        return *this;
    }
    Asked& page(int size, const std::string& cookie = "") {
        m_cookie = cookie;
        m_state = op()->o_conn->c_pagedresults_state;
        m_state.ps_size = size;
        m_state.ps_cookieval = {m_cookie.size(), m_cookie.data()};
        if (cookie.empty()) m_state.ps_count = 0, m_state.ps_cookie = 0;
        op()->o_pagedresults = SLAP_CONTROL_NONCRITICAL;
        op()->o_pagedresults_state = &m_state;
        return *this;
    }

    static Filter* described(Filter* filter) {
        if ((filter->f_choice & SLAPD_FILTER_UNDEFINED) != 0) return filter;
        switch (filter->f_choice) {
            case LDAP_FILTER_AND:
            case LDAP_FILTER_OR:
            case LDAP_FILTER_NOT:
                for (Filter* one = filter->f_list; one != nullptr; one = one->f_next) described(one);
                return filter;
            case SLAPD_FILTER_COMPUTED:
                return filter;
            case LDAP_FILTER_PRESENT:
                describe(&filter->f_desc, filter);
                return filter;
            case LDAP_FILTER_SUBSTRINGS:
                describe(&filter->f_sub_desc, filter);
                return filter;
            default:
                describe(&filter->f_av_desc, filter);
                return filter;
        }
    }

  private:
    static void describe(AttributeDescription** description, Filter* filter) {
        const char* reason = nullptr;
        if (slap_str2ad((*description)->ad_cname.bv_val, description, &reason) != LDAP_SUCCESS)
            filter->f_choice |= SLAPD_FILTER_UNDEFINED;
    }

    standin::FakeOperation m_operation;
    std::string m_lower = "dc=example,dc=com";
    berval m_normal[2] = {};
    void* m_controls[SLAP_MAX_CIDS] = {};
    FilterBuilder m_builder;
    std::vector<std::string> m_texts;
    std::vector<AttributeName> m_names;
    PagedResultsState m_state{};
    std::string m_cookie;
};

// People below OU=P and groups below OU=G; groups are shown by another name than their own.
class DirectoryTest : public searchtest::Fixture {
  protected:
    DirectoryTest() {
        for (const char* name : {"objectClass",
                                 "structuralObjectClass",
                                 "hasSubordinates",
                                 "entry",
                                 "cn",
                                 "sn",
                                 "ou",
                                 "uid",
                                 "mail",
                                 "title",
                                 "uidNumber",
                                 "gidNumber",
                                 "homeDirectory",
                                 "memberUid",
                                 "member",
                                 "memberOf",
                                 "entryUUID",
                                 "createTimestamp",
                                 "modifyTimestamp",
                                 "entryDN",
                                 "gecos"})
            standin::knowAttribute(name);
        slap_schema.si_ad_objectClass = known("objectClass");
        slap_schema.si_ad_structuralObjectClass = known("structuralObjectClass");
        slap_schema.si_ad_hasSubordinates = known("hasSubordinates");
        slap_schema.si_ad_entry = known("entry");
        frontendDB = &m_frontend;
        standin::testFiltersWith([this](Entry* entry, const Filter* filter) {
            ++m_tests;
            return standin::evaluate(entry, filter);
        });
        useKinds(makeKinds());
        learnRules(&m_frontend);
        vorn::Thread::SetThreadsActive(true);
    }
    ~DirectoryTest() override {
        useKinds({});
        standin::hideFromSearch({});
        frontendDB = nullptr;
        slap_schema = {};
    }

    static AttributeDescription* known(const char* name) {
        AttributeDescription* description = nullptr;
        const char* reason = nullptr;
        slap_str2ad(name, &description, &reason);
        return description;
    }

    static Kinds makeKinds() {
        SmallSchema schema;
        schema.addAttribute("memberOf", Match::Dn);
        schema.addClass({"inetOrgPerson",
                         true,
                         {"top", "person"},
                         {"objectClass", "sn", "cn"},
                         {"uid", "mail", "title", "memberOf"}});
        vorn::Properties map;
        map.parse(
            "posixAccount = User\nposixAccount.uid = sAMAccountName\nposixAccount.homeDirectory = "
            "unixHomeDirectory\ninetOrgPerson = User\nposixGroup = Group\nposixGroup.cn = sAMAccountName\n"
            "groupOfNames = Group\n",
            "a.map");
        return kindsOf(map, schema).kinds;
    }

    static standin::Object person(const std::string& name) {
        return {{"_dn", {"CN=" + name + ",OU=P,DC=example,DC=com"}},
                {"_GUID", {"guid-" + name}},
                {"objectClass", {"top", "user"}},
                {"cn", {name}},
                {"sn", {"Lee"}},
                {"sAMAccountName", {name}},
                {"uidNumber", {"7"}},
                {"gidNumber", {"8"}},
                {"unixHomeDirectory", {"/h"}}};
    }
    static standin::Object group(const std::string& name, const std::vector<standin::Value>& members = {}) {
        standin::Object object = {{"_dn", {"CN=The " + name + ",OU=G,DC=example,DC=com"}},
                                  {"_GUID", {"guid-" + name}},
                                  {"objectClass", {"top", "group"}},
                                  {"cn", {"The " + name}},
                                  {"sAMAccountName", {name}},
                                  {"gidNumber", {"9"}}};
        if (!members.empty()) object.push_back({"memberUid", members});
        return object;
    }
    static standin::Object unit(const std::string& name) {
        return {{"_dn", {"OU=" + name + ",DC=example,DC=com"}},
                {"_GUID", {"guid-" + name}},
                {"objectClass", {"top", "organizationalUnit"}},
                {"ou", {name}}};
    }
    static standin::Object domain() {
        return {{"_dn", {"DC=example,DC=com"}},
                {"_GUID", {"guid-domain"}},
                {"objectClass", {"top", "domain", "domainDNS"}}};
    }

    // Whatever is asked, the agent finds these.
    static void has(std::vector<standin::Object> objects, int end = VEX_END_OF_RESULTS) {
        standin::Found found;
        found.objects = std::move(objects);
        found.end = end;
        standin::searchFor({}, std::move(found));
    }
    // Asked about this base, the agent finds these.
    static void hasAt(const std::string& base, std::vector<standin::Object> objects) {
        standin::Match match;
        match.base = base;
        standin::Found found;
        found.objects = std::move(objects);
        standin::searchFor(std::move(match), std::move(found));
    }

    // What was asked since the last time, as "FILTER BASE SCOPE".
    static std::vector<std::string> questions() {
        std::vector<std::string> found;
        for (const std::string& call : standin::calls()) {
            if (!call.starts_with("vexLdapSearchOpen")) continue;
            const std::size_t filter = call.find("\"\", \"") + 5;
            const std::size_t base = call.find("\", \"", filter);
            const std::size_t end = call.find('"', base + 4);
            const std::size_t list = call.find_first_of("]l", end + 3);  // names, or null
            const std::size_t scope = call.find(", ", call[list] == 'l' ? list : list + 1) + 2;
            found.push_back(call.substr(filter, base - filter) + " " + call.substr(base + 4, end - base - 4) +
                            " " + call.substr(scope, 1));
        }
        standin::forgetCalls();
        return found;
    }

    Asked ask() { return Asked(m_connection); }

    // Runs the search; the DNs of what it sends, and the result.
    std::vector<std::string> run(Asked& asked) {
        const std::size_t before = m_connection.sent().size();
        search(asked.op(), asked.reply());
        std::vector<std::string> told;
        const std::vector<standin::Sent> sent = m_connection.sent();
        for (std::size_t i = before; i < sent.size(); ++i)
            told.push_back(sent[i].isEntry ? sent[i].text.substr(4, sent[i].text.find(",OU=") - 4)
                                           : std::to_string(sent[i].code));
        return told;
    }
    std::vector<std::string> find(const std::string& filter) {
        Asked asked = ask();
        return run(asked.where(filter));
    }
    // The text of what was sent last but for the result.
    std::string lastEntry() {
        const std::vector<standin::Sent> sent = m_connection.sent();
        return sent.size() < 2 ? "" : sent[sent.size() - 2].text;
    }

    standin::FakeConnection m_connection{1};
    BackendDB m_frontend{};
    int m_tests = 0;
};

}  // namespace standard
