// SPDX-License-Identifier: Apache-2.0
// What a client is sent of each event of a search in the standard mode: one result, always.
#include "standard/reply.h"

#include <gmock/gmock.h>

#include <cstring>
#include <string>

#include "backend/base/agent_turns.h"
#include "backend/base/failure.h"
#include "search/entries.h"
#include "search/fixture_testing.h"
#include "search/reply.h"

#include "tests/standin/slapd_standin.h"

namespace standard {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class StandardReplyTest : public searchtest::Fixture {
  protected:
    StandardReplyTest() {
        m_operation.op()->ors_slimit = m_operation.op()->ors_tlimit = SLAP_NO_LIMIT;
        slap_cids.sc_pagedResults = 3;
        m_operation.op()->o_controls = m_controls;
    }

    static SharedEntry ann() { return EntryMaker::parse("dn: cn=ann\n"); }

    StandardReply reply() { return {m_operation.op(), m_operation.reply()}; }

    std::string sent() {
        std::string text;
        for (const auto& one : m_connection.sent())
            text += (text.empty() ? "" : " ") + (one.isEntry ? "entry" : std::to_string(one.code));
        return text;
    }
    std::size_t controls() { return m_connection.sent().back().controls.size(); }

    void askForPage(int size, std::string cookie = "") {
        m_cookie = std::move(cookie);
        m_state.ps_size = size;
        m_state.ps_cookieval = {m_cookie.size(), m_cookie.data()};
        m_operation.op()->o_pagedresults = SLAP_CONTROL_NONCRITICAL;
        m_operation.op()->o_pagedresults_state = &m_state;
    }

    // A page with an entry left over; the cookie that it gives.
    std::string leaveAPage() {
        askForPage(1);
        m_operation.reply()->sr_nentries = 1;
        StandardReply policy = reply();
        OpenPage page{std::make_shared<LdapSearchHandle>(), ann(), 0, {}};
        EXPECT_TRUE(policy.pageEnds(&page));
        return searchtest::cookieOf(m_connection.sent().back());
    }

    // Whether a search goes on with what the cookie names; what the client is sent.
    std::string resumeWith(const std::string& cookie) {
        askForPage(1, cookie);
        StandardReply policy = reply();
        SearchReply search(m_operation.op(), m_operation.reply(), &policy, PagedResults::Cookies::Each);
        SharedHandle open;
        if (search.resume(&open)) return open != nullptr ? "goes on" : "begins";
        policy.end();
        const standin::Sent last = m_connection.sent().back();
        return std::to_string(last.code) + " " + last.text;
    }

    standin::FakeConnection m_connection;
    standin::FakeOperation m_operation{m_connection};
    PagedResultsState m_state{};
    std::string m_cookie;
    void* m_controls[SLAP_MAX_CIDS] = {};
};

TEST_F(StandardReplyTest, NothingFoundIsASuccess) {
    StandardReply policy = reply();
    policy.objectsFollow();
    policy.end();
    EXPECT_EQ(sent(), "0");
}

TEST_F(StandardReplyTest, ALimitIsToldOnce) {
    StandardReply policy = reply();
    EXPECT_TRUE(policy.entry(ann().get(), nullptr));
    policy.limit(LDAP_SIZELIMIT_EXCEEDED);
    EXPECT_TRUE(policy.isDecided());
    EXPECT_EQ(sent(), "entry");
    policy.end();
    EXPECT_EQ(sent(), "entry 4");
}

TEST_F(StandardReplyTest, AFailureIsToldOnce) {
    StandardReply policy = reply();
    EXPECT_FALSE(policy.failed({nullptr, "call ", VEX_BROKEN_SESSION, Failure::In::Objects}));
    EXPECT_EQ(sent(), "52");
    EXPECT_TRUE(policy.isDecided());
    policy.end();
    EXPECT_EQ(sent(), "52");
}

TEST_F(StandardReplyTest, AFailureTellsItsKindAndWhatTheLogCallsTheRequest) {
    m_operation.op()->o_opid = 7;
    const std::string name = " (conn=" + std::to_string(m_operation.op()->o_connid) + " op=7)";
    const struct {
        vexCode code;
        std::string text;
    } cases[] = {
        {kTooManyWait, "vex dirgate: too many requests wait for the agent"},
        {VEX_BROKEN_SESSION, "call : Failed to communicate with vexagent due to broken session handle"},
    };
    for (const auto& one : cases) {
        reply().failed({nullptr, "call ", one.code, Failure::In::Objects});
        EXPECT_EQ(m_connection.sent().back().text, one.text + name);
    }
}

TEST_F(StandardReplyTest, ALongTextOfAFailureLeavesRoomForTheRequest) {
    reply().failed({nullptr, std::string(2000, 'x').c_str(), VEX_BROKEN_SESSION, Failure::In::Objects});
    const std::string text = m_connection.sent().back().text;
    EXPECT_LT(text.size(), static_cast<std::size_t>(kFailureTextBytes));
    EXPECT_TRUE(text.starts_with("xxx"));
    EXPECT_THAT(text, testing::MatchesRegex("x+ \\(conn=[0-9]+ op=[0-9]+\\)"));
}

TEST_F(StandardReplyTest, ABaseThatDoesNotExistIsToldWithTheEntryAboveIt) {
    const SharedEntry above = ann();
    StandardReply policy = reply();
    policy.noSuchBase(above.get());
    policy.end();
    EXPECT_EQ(sent(), "32");
    EXPECT_EQ(m_operation.reply()->sr_matched, nullptr) << "the entry goes with the search";
}

TEST_F(StandardReplyTest, AnEntryThatAccessControlHidesIsNone) {
    StandardReply policy = reply();
    m_connection.entriesAnswer(LDAP_INSUFFICIENT_ACCESS);
    EXPECT_TRUE(policy.entry(ann().get(), nullptr));
    m_connection.entriesAnswer(LDAP_SIZELIMIT_EXCEEDED);
    EXPECT_FALSE(policy.entry(ann().get(), nullptr));
    EXPECT_TRUE(policy.isDecided());
}

TEST_F(StandardReplyTest, WhereTheConnectionIsGoneNobodyIsToldAnything) {
    StandardReply policy = reply();
    m_connection.entriesAnswer(-1);
    EXPECT_FALSE(policy.entry(ann().get(), nullptr));
    policy.end();
    EXPECT_EQ(sent().find("0"), std::string::npos);
}

TEST_F(StandardReplyTest, EveryPageHasTheControl) {
    for (const int found : {0, 1, 2}) {
        askForPage(2);
        m_operation.reply()->sr_nentries = found;
        StandardReply policy = reply();
        OpenPage page{nullptr, nullptr, 0, {}};
        EXPECT_FALSE(policy.pageEnds(&page)) << "there is no more";
        policy.end();
        EXPECT_EQ(controls(), 1U) << found;
        EXPECT_EQ(searchtest::cookieOf(m_connection.sent().back()), "") << found;
    }
}

TEST_F(StandardReplyTest, AConnectionReadsSeveralSearchesByTurns) {
    const std::string first = leaveAPage();
    const std::string second = leaveAPage();
    EXPECT_EQ(resumeWith(first), "goes on");
    EXPECT_EQ(resumeWith(second), "goes on");
    EXPECT_EQ(resumeWith(first), "53 paged results cookie is invalid or old") << "a cookie is good for once";
    EXPECT_EQ(resumeWith("short"), "2 paged results cookie is invalid");
    EXPECT_EQ(resumeWith(std::string(24, '\0')), "2 paged results cookie is invalid");
    EXPECT_EQ(resumeWith(""), "begins");
}

}  // namespace
}  // namespace standard
