// SPDX-License-Identifier: Apache-2.0
// What a client is sent of each event of a search, and what is sent again at its end.
#include "search/exact_reply.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "backend/base/agent_turns.h"
#include "search/entries.h"
#include "search/fixture_testing.h"

#include "tests/standin/slapd_standin.h"

namespace {

class ExactReplyTest : public searchtest::Fixture {
  protected:
    ExactReplyTest() {
        m_operation.op()->ors_slimit = m_operation.op()->ors_tlimit = SLAP_NO_LIMIT;
        slap_cids.sc_pagedResults = 3;
        m_operation.op()->o_controls = m_controls;
    }
    static SharedEntry ann() { return EntryMaker::parse("dn: cn=ann\n"); }
    static Failure failure(Failure::In in, vexCode code = VEX_BROKEN_SESSION) {
        return {nullptr, "call ", code, in};
    }
    bool send(ExactReply& reply) { return reply.entry(ann().get(), nullptr); }

    // "entry 0 32": an entry, and two results.
    std::string sent() {
        std::string text;
        for (const auto& one : m_connection.sent())
            text += (text.empty() ? "" : " ") + (one.isEntry ? "entry" : std::to_string(one.code));
        return text;
    }
    // A later page: earlier ones have brought so many entries.
    void askForPageAfter(int earlier, int size = 2) {
        m_state.ps_size = size;
        m_state.ps_count = earlier;
        m_operation.op()->o_pagedresults = SLAP_CONTROL_NONCRITICAL;
        m_operation.op()->o_pagedresults_state = &m_state;
    }

    standin::FakeConnection m_connection;
    standin::FakeOperation m_operation{m_connection};
    PagedResultsState m_state{};
    void* m_controls[SLAP_MAX_CIDS] = {};
};

TEST_F(ExactReplyTest, EntriesAndTheEndAreASuccess) {
    ExactReply reply(m_operation.op(), m_operation.reply());
    reply.objectsFollow();
    EXPECT_TRUE(send(reply));
    reply.end();
    EXPECT_EQ(sent(), "entry 0");
}

TEST_F(ExactReplyTest, NothingFoundIsNoSuchObject) {
    ExactReply reply(m_operation.op(), m_operation.reply());
    reply.objectsFollow();
    reply.end();
    EXPECT_EQ(sent(), "32");
}

TEST_F(ExactReplyTest, NothingFoundOnALaterPageIsASuccess) {
    askForPageAfter(2);
    ExactReply reply(m_operation.op(), m_operation.reply());
    reply.objectsFollow();
    reply.end();
    EXPECT_EQ(sent(), "0");
}

TEST_F(ExactReplyTest, WhatThePageBeforeLeftOverDoesNotCountAsFound) {
    ExactReply reply(m_operation.op(), m_operation.reply());
    EXPECT_TRUE(send(reply));
    reply.objectsFollow();
    reply.end();
    EXPECT_EQ(sent(), "entry 32");
}

TEST_F(ExactReplyTest, ARejectionIsSentAtTheEndAlone) {
    ExactReply reply(m_operation.op(), m_operation.reply());
    reply.rejected({LDAP_PROTOCOL_ERROR, "why"});
    EXPECT_EQ(sent(), "");
    reply.end();
    EXPECT_EQ(sent(), "2");
    EXPECT_EQ(m_connection.sent()[0].text, "why");
}

TEST_F(ExactReplyTest, ALimitIsSentAtOnceAndAgain) {
    ExactReply reply(m_operation.op(), m_operation.reply());
    reply.objectsFollow();
    send(reply);
    reply.limit(LDAP_SIZELIMIT_EXCEEDED);
    EXPECT_EQ(sent(), "entry 4");
    reply.end();
    EXPECT_EQ(sent(), "entry 4 4");
    EXPECT_FALSE(m_connection.sent()[1].hasText);
}

TEST_F(ExactReplyTest, ALimitBeforeTheFirstEntryIsSentAgainAsNothingFound) {
    ExactReply reply(m_operation.op(), m_operation.reply());
    reply.objectsFollow();
    reply.limit(LDAP_TIMELIMIT_EXCEEDED);
    reply.end();
    EXPECT_EQ(sent(), "3 32");
}

TEST_F(ExactReplyTest, AnEntryThatSlapdDoesNotSendIsToldWithItsAnswerTwice) {
    m_connection.entriesAnswer(80);
    ExactReply reply(m_operation.op(), m_operation.reply());
    EXPECT_FALSE(send(reply));
    reply.end();
    EXPECT_EQ(sent(), "50 50");
    for (const auto& one : m_connection.sent()) EXPECT_EQ(one.text, "send_search_entry Failed, lrc = 80");
}

TEST_F(ExactReplyTest, WhoAbandonsIsToldNothingBeforeTheEnd) {
    ExactReply reply(m_operation.op(), m_operation.reply());
    reply.objectsFollow();
    send(reply);
    reply.abandoned();
    EXPECT_EQ(sent(), "entry");
}

TEST_F(ExactReplyTest, AFailureIsSentAtOnceAndAgainAsWhatItIsOrAsNothingFound) {
    const struct {
        Failure::In in;
        const char* sent;
    } cases[] = {
        {Failure::In::Opening, "52 52"}, {Failure::In::Object, "52 32"}, {Failure::In::Objects, "52 52"}};
    gSearchReportErrors = true;
    for (const auto& one : cases) {
        standin::FakeConnection connection;
        standin::FakeOperation operation(connection);
        ExactReply reply(operation.op(), operation.reply());
        if (one.in != Failure::In::Opening) reply.objectsFollow();
        EXPECT_FALSE(reply.failed(failure(one.in)));
        reply.end();
        std::string codes;
        for (const auto& result : connection.sent())
            codes += (codes.empty() ? "" : " ") + std::to_string(result.code);
        EXPECT_EQ(codes, one.sent);
    }
}

TEST_F(ExactReplyTest, ObjectsThatEndTooEarlyLookWholeWhereErrorsAreNotReported) {
    ExactReply reply(m_operation.op(), m_operation.reply());
    reply.objectsFollow();
    send(reply);
    EXPECT_TRUE(reply.failed(failure(Failure::In::Objects)));
    reply.end();
    EXPECT_EQ(sent(), "entry 0");
}

TEST_F(ExactReplyTest, ButNeverWhenTheyHadNoTurnAtTheAgent) {
    ExactReply reply(m_operation.op(), m_operation.reply());
    reply.objectsFollow();
    EXPECT_FALSE(reply.failed(failure(Failure::In::Objects, kTooManyWait)));
    reply.end();
    EXPECT_EQ(sent(), "51 51");
}

// The pages that get a control, and a result of their own, are tested with the pages.
TEST_F(ExactReplyTest, APageGetsNoControlWhenItIsEmptyOrJustFull) {
    askForPageAfter(0);
    const struct {
        int sent;
        bool pending;
        int sizeLimit;
    } cases[] = {{0, false, SLAP_NO_LIMIT}, {2, false, SLAP_NO_LIMIT}, {2, true, 2}};
    for (const auto& one : cases) {
        m_operation.op()->ors_slimit = one.sizeLimit;
        m_operation.reply()->sr_nentries = one.sent;
        ExactReply reply(m_operation.op(), m_operation.reply());
        OpenPage page{nullptr, one.pending ? ann() : nullptr, 0, {}};
        EXPECT_FALSE(reply.pageEnds(&page));
        EXPECT_EQ(sent(), "") << one.sent << " " << one.pending;
    }
}

}  // namespace
