// SPDX-License-Identifier: Apache-2.0
// Which KDC gets a message, and how often.

#include "agent/ad/net/kdc.h"

#include <gmock/gmock.h>

#include <map>

#include "agent/ad/net/scripted_peer_testing.h"
#include "vorn/clock_testing.h"

namespace vexagent {
namespace {

using std::chrono::seconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class KdcConversationTest : public ::testing::Test {
  protected:
    // What becomes of a message to a host.
    struct Kdc {
        bool takesConnections = true;
        bool hangsUp = false;  // instead of an answer
        milliseconds answersAfter{0};
    };

    KdcConversationTest() { m_controllers.set({{{"dc1", 389}, 0}, {{"dc2", 389}, 0}}); }

    Expected<std::string, KdcLoss> carry(const Peer& peer, const Deadline& deadline) {
        EXPECT_EQ(peer.port, 88);
        const std::string& host = peer.host;
        m_asked.push_back(host);
        const Kdc& kdc = m_kdcs[host];
        if (!kdc.takesConnections) return vorn::unexpected(KdcLoss{host + ": refused", false});
        if (kdc.hangsUp) return vorn::unexpected(KdcLoss{host + ": gone", true});
        const bool inTime = kdc.answersAfter < deadline.left();
        m_clock.advance(std::min(kdc.answersAfter, deadline.left()));
        if (!inTime) return vorn::unexpected(KdcLoss{host + ": no answer", true});
        return "reply of " + host;
    }
    KdcConversation conversation(milliseconds time = milliseconds(8000)) {
        return {[this](const std::string& realm) { return realm == "OTHER" ? nullptr : &m_controllers; },
                Deadline(m_clock, time),
                [this](const Peer& peer, std::string_view, const Deadline& deadline) {
                    return carry(peer, deadline);
                }};
    }
    // The reply, or the reason.
    static std::string ask(KdcConversation& kdc, bool repeatable = true,
                           const std::string& realm = "EXAMPLE.COM") {
        const auto reply = kdc.exchange(realm, "message", repeatable);
        return reply ? *reply : reply.error().text;
    }

    vorn::test::ManualClock m_clock;
    Controllers m_controllers{[] { return 0.5; }};
    std::map<std::string, Kdc> m_kdcs;
    std::vector<std::string> m_asked;
};

TEST_F(KdcConversationTest, StaysWithTheOneThatAnsweredFirst) {
    m_kdcs["dc1"].takesConnections = false;
    KdcConversation kdc = conversation();
    EXPECT_EQ(ask(kdc), "reply of dc2");
    EXPECT_EQ(kdc.answered().host, "dc2");
    m_kdcs["dc1"].takesConnections = true;
    m_clock.advance(seconds(5));
    EXPECT_EQ(ask(kdc), "reply of dc2");
    EXPECT_THAT(m_asked, ElementsAre("dc1", "dc2", "dc2"));
}

TEST_F(KdcConversationTest, WhatMayNotBeRepeatedIsSentOnceHoweverItEnds) {
    m_kdcs["dc1"].answersAfter = seconds(60);
    const Moment start = m_clock.now();
    KdcConversation kdc = conversation();
    const auto lost = kdc.exchange("EXAMPLE.COM", "message", false);
    ASSERT_FALSE(lost);
    EXPECT_EQ(lost.error().code, KRB5_KDC_UNREACH);
    EXPECT_EQ(lost.error().text, "dc1: no answer");
    EXPECT_THAT(m_asked, ElementsAre("dc1"));
    EXPECT_EQ(m_clock.now() - start, seconds(8));  // nobody else is waiting for his turn
    m_kdcs["dc2"].hangsUp = true;
    KdcConversation another = conversation();
    EXPECT_EQ(ask(another, false), "dc2: gone");
    EXPECT_THAT(m_asked, ElementsAre("dc1", "dc2"));
}

TEST_F(KdcConversationTest, WhatDidNotArriveMayGoToAnother) {
    m_kdcs["dc1"].takesConnections = false;
    KdcConversation kdc = conversation();
    EXPECT_EQ(ask(kdc, false), "reply of dc2");
}

TEST_F(KdcConversationTest, OneThatHangsGetsTwoSecondsOrHalfOfTheTimeAsLongAsThereIsAnother) {
    m_kdcs["dc1"].answersAfter = seconds(60);
    const Moment start = m_clock.now();
    KdcConversation kdc = conversation();
    EXPECT_EQ(ask(kdc), "reply of dc2");
    EXPECT_EQ(m_clock.now() - start, seconds(2));
    KdcConversation hurried = conversation(milliseconds(1000));
    m_controllers.set({});
    m_controllers.set({{{"dc1", 389}, 0}, {{"dc2", 389}, 0}});
    EXPECT_EQ(ask(hurried), "reply of dc2");
    EXPECT_EQ(m_clock.now() - start, milliseconds(2500));
}

TEST_F(KdcConversationTest, OneThatHadLittleTimeAndAnswersOthersIsNotAtFault) {
    for (const char* host : {"dc1", "dc2"}) m_kdcs[host].answersAfter = seconds(60);
    KdcConversation kdc = conversation(milliseconds(1000));
    for (const char* host : {"dc1", "dc2"}) m_controllers.answered({host, 389}, m_clock.now());
    EXPECT_EQ(ask(kdc), "dc2: no answer");
    EXPECT_FALSE(m_controllers.allDown(m_clock.now()));
    // With time enough it is.
    KdcConversation patient = conversation(seconds(60));
    for (const char* host : {"dc1", "dc2"}) m_kdcs[host].takesConnections = false;
    EXPECT_NE(ask(patient), "");
    EXPECT_TRUE(m_controllers.allDown(m_clock.now()));
}

TEST_F(KdcConversationTest, TheLastOneHasAllTheTimeThatIsLeft) {
    for (const char* host : {"dc1", "dc2"}) m_kdcs[host].answersAfter = seconds(60);
    const Moment start = m_clock.now();
    KdcConversation kdc = conversation();
    EXPECT_EQ(ask(kdc), "dc2: no answer");
    EXPECT_EQ(m_clock.now() - start, seconds(8));
}

TEST_F(KdcConversationTest, OneThatRefusesIsAtFaultHoweverLittleTimeItHad) {
    for (const char* host : {"dc1", "dc2"}) m_kdcs[host].takesConnections = false;
    KdcConversation kdc = conversation(milliseconds(1000));
    for (const char* host : {"dc1", "dc2"}) m_controllers.answered({host, 389}, m_clock.now());
    EXPECT_EQ(ask(kdc), "dc2: refused");
    EXPECT_TRUE(m_controllers.allDown(m_clock.now()));
}

TEST_F(KdcConversationTest, WithTwoSecondsLeftOneThatHungHadTimeEnough) {
    m_controllers.set({{{"dc1", 389}, 0}, {{"dc2", 389}, 1}});
    m_kdcs["dc1"].answersAfter = seconds(60);
    KdcConversation kdc = conversation(milliseconds(4000));
    m_controllers.answered({"dc1", 389}, m_clock.now());
    EXPECT_EQ(ask(kdc), "reply of dc2");
    EXPECT_EQ(m_controllers.order(m_clock.now())[0].peer.host, "dc2");
    EXPECT_FALSE(m_controllers.order(m_clock.now())[1].due);
}

TEST_F(KdcConversationTest, NobodyIsAskedWhenTheTimeIsUp) {
    KdcConversation kdc = conversation(milliseconds(0));
    EXPECT_EQ(ask(kdc), "no controller of the realm EXAMPLE.COM is known");
    EXPECT_THAT(m_asked, IsEmpty());
}

TEST_F(KdcConversationTest, ARealmThatIsNotKnownIsAskedForNothing) {
    KdcConversation kdc = conversation();
    const auto none = kdc.exchange("OTHER", "message", true);
    ASSERT_FALSE(none);
    EXPECT_EQ(none.error().code, KRB5_REALM_UNKNOWN);
    EXPECT_EQ(none.error().text, "no controllers of the realm OTHER");
    EXPECT_EQ(kdc.answered().host, "");
    EXPECT_THAT(m_asked, IsEmpty());
}

TEST_F(KdcConversationTest, WithoutControllersThereIsNobodyToAsk) {
    m_controllers.set({});
    KdcConversation kdc = conversation();
    const auto none = kdc.exchange("EXAMPLE.COM", "message", true);
    ASSERT_FALSE(none);
    EXPECT_EQ(none.error().code, KRB5_KDC_UNREACH);
    EXPECT_EQ(none.error().text, "no controller of the realm EXAMPLE.COM is known");
    EXPECT_FALSE(none.error().barred);
}

TEST_F(KdcConversationTest, OnlyThoseAreAskedThatMayBe) {
    KdcConversation kdc = conversation();
    kdc.askOnly([](const Peer& peer) { return peer.host == "dc2"; });
    EXPECT_EQ(ask(kdc), "reply of dc2");
    kdc.askOnly([](const Peer&) { return false; });
    const auto none = kdc.exchange("EXAMPLE.COM", "message", true);
    ASSERT_FALSE(none);
    EXPECT_TRUE(none.error().barred);
    EXPECT_EQ(none.error().text, "the domain refuses the machine's key; it is tried again later");
    EXPECT_FALSE(m_controllers.allDown(m_clock.now()));
    kdc.askOnly(nullptr);
    EXPECT_EQ(ask(kdc), "reply of dc2");
}

// ---------------------------------------------------------------------- over TCP

Deadline soon() {
    return {vorn::systemSteadyClock(), milliseconds(20'000)};
}

// The reply, or the reason; "unsent: " before one of a message that cannot have arrived.
std::string carried(const Peer& kdc, std::string_view message) {
    const auto reply = carryByTcp(kdc, message, soon());
    if (reply) return *reply;
    const std::string name = "127.0.0.1 port " + std::to_string(kdc.port) + ": ";
    EXPECT_TRUE(reply.error().text.starts_with(name)) << reply.error().text;
    return (reply.error().sent ? "" : "unsent: ") + reply.error().text.substr(name.size());
}

std::string sized(std::size_t size) {
    std::string header;
    for (const int shift : {24, 16, 8, 0}) header += static_cast<char>(size >> shift & 0xff);
    return header;
}

TEST(KdcByTcp, AMessageAndItsReplyStandBehindTheirSizes) {
    for (const std::size_t size : {std::size_t{1}, std::size_t{0x10203}, std::size_t{1} << 20}) {
        const std::string message(size % 1000 + 0x10203, 'm'), reply(size, 'r');
        ScriptedPeer kdc(4 + message.size(), sized(size) + reply);
        EXPECT_EQ(carried(kdc.peer(), message), reply) << size;
        EXPECT_EQ(kdc.heard(), sized(message.size()) + message) << size;
    }
}

TEST(KdcByTcp, WhatIsNoReplyIsALoss) {
    const std::pair<std::string, const char*> cases[] = {
        {"", "no answer"},
        {sized(2).substr(0, 3), "no answer"},
        {sized(0), "no whole answer"},
        {sized(0) + "x", "no whole answer"},
        {sized(2) + "x", "no whole answer"},
        {sized((1 << 20) + 1) + std::string((1 << 20) + 1, 'x'), "no whole answer"},
        {sized(0xffffffff) + "x", "no whole answer"},
    };
    for (const auto& [says, expected] : cases) {
        ScriptedPeer kdc(5, says);
        EXPECT_EQ(carried(kdc.peer(), "m"), expected) << says.substr(0, 9);
    }
}

TEST(KdcByTcp, WhatNobodyTookHasNotArrived) {
    ScriptedPeer kdc(0, "");
    const Peer peer = kdc.peer();
    kdc.heard();
    EXPECT_EQ(carried(peer, "m"), "unsent: Connection refused");
}

}  // namespace
}  // namespace vexagent
