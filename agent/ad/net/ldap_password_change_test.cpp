// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/ldap_password_change.h"

#include <gmock/gmock.h>

#include "agent/ad/net/link_testing.h"

namespace vexagent {
namespace {

using namespace std::string_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using Of = ChangeFailure::Of;

TEST(UnicodePassword, IsQuotedUtf16) {
    const auto of = [](const std::string& text) {
        const auto made = unicodePassword(text);
        return made ? made->text() : "nothing";
    };
    EXPECT_EQ(of("ab"), "\"\0a\0b\0\"\0"s);
    EXPECT_EQ(of(""), "\"\0\"\0"s);
    EXPECT_EQ(of("é"), "\"\0\xe9\0\"\0"s);
    EXPECT_EQ(of("€"), "\"\0\xac\x20\"\0"s);
    EXPECT_EQ(of("😀"), "\"\0\x3d\xd8\x00\xde\"\0"s);
    for (const char* bad : {"\xff", "a\xc3", "\xed\xa0\x80"}) EXPECT_EQ(of(bad), "nothing") << bad;
}

TEST(RefusedChange, IsToldByCodeAndByWindowsOwnNumber) {
    const struct {
        int code;
        const char* text;
        Of of;
    } cases[] = {{19, "0000052D: AtrErr: DSID-1", Of::NewPassword},
                 {53, "Unwilling: 0000052D: SvcErr: DSID-1", Of::NewPassword},
                 {19, "00000056: AtrErr: DSID-1", Of::OldPassword},
                 {19, "something", Of::NewPassword},
                 {50, "00000005: SecErr: DSID-1", Of::Leave},
                 {53, "0000001F: SvcErr: DSID-1", Of::Leave},
                 {32, "gone", Of::Service},
                 {80, "", Of::Service}};
    for (const auto& [code, text, of] : cases) EXPECT_EQ(refusedChange({code, text}).of, of) << text;
    EXPECT_EQ(refusedChange({19, "0000052D: late", true}).of, Of::Service) << "nobody knows";
}

class ChangeByLdap : public testing::Test {
  protected:
    ChangeByLdap() {
        m_connector.controllers["dc1"];
        m_connector.options.controllers.servers = {"dc1"};
        m_connector.options.transport = Transport::Ldaps;
    }
    FakeController& controller() { return m_connector.controllers["dc1"]; }

    // "done", or whose failure it is.
    std::string change(const std::string& from, const std::string& to) {
        Domain domain(m_connector.context, {"example.com"});
        EXPECT_TRUE(domain.locator().locate());
        m_connector.takeEvents();
        const auto changed =
            changeByLdap(domain, {"ann", "CN=Ann", from, to}, m_connector.within(milliseconds(8000)));
        if (changed) return "done";
        static constexpr const char* kNames[] = {"old", "new", "leave", "service"};
        return kNames[static_cast<int>(changed.error().of)];
    }

    FakeConnector m_connector;
};

TEST_F(ChangeByLdap, BindsAsTheAccountAndChangesItsOwnPasswordOnce) {
    EXPECT_EQ(change("welcome", "n3w"), "done");
    EXPECT_THAT(m_connector.takeEvents(),
                ElementsAre("look dc1", "bind dc1 CN=Ann", "change dc1 CN=Ann \"welcome\" \"n3w\""));
    EXPECT_EQ(m_connector.openLinks, 0);
}

TEST_F(ChangeByLdap, WhoIsNotLetInChangesNothing) {
    EXPECT_EQ(change("wrong", "n3w"), "old");
    EXPECT_THAT(m_connector.takeEvents(), ElementsAre("look dc1", "bind dc1 CN=Ann"));
}

TEST_F(ChangeByLdap, TellsWhyNot) {
    controller().refusesChange = LinkFailure(LDAP_CONSTRAINT_VIOLATION, "0000052D: short");
    EXPECT_EQ(change("welcome", "n"), "new");
    controller().refusesChange = LinkFailure(LDAP_INSUFFICIENT_ACCESS, "no");
    EXPECT_EQ(change("welcome", "n"), "leave");
    controller().refusesChange = LinkFailure(LDAP_SERVER_DOWN, "gone", true);
    EXPECT_EQ(change("welcome", "n"), "service");
}

TEST_F(ChangeByLdap, AnAnswerThatDoesNotComeLeavesItOpen) {
    controller().hangsAtChanges = true;
    EXPECT_EQ(change("welcome", "n3w"), "service");
}

TEST_F(ChangeByLdap, WhatIsNotUtf8IsNobodysPassword) {
    EXPECT_EQ(change("\xff", "n3w"), "old");
    EXPECT_EQ(change("welcome", "\xff"), "new");
    EXPECT_THAT(m_connector.takeEvents(), IsEmpty());
}

}  // namespace
}  // namespace vexagent
