// SPDX-License-Identifier: Apache-2.0
// What the reply says to its policy, and when.
#include "search/reply.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "search/entries.h"
#include "search/fixture_testing.h"

#include "tests/standin/slapd_standin.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Delivery = SearchReply::Delivery;

// Writes down what it is told, and counts an entry as slapd does.
class RecordingPolicy final : public ReplyPolicy {
  public:
    explicit RecordingPolicy(SlapReply* rs) : m_rs(rs) {}

    void rejected(const Rejection& why) override { tell("rejected " + std::to_string(why.result)); }
    void objectsFollow() override { tell("objectsFollow"); }
    bool entry(Entry* entry, AttributeName* attributes) override {
        tell("entry " + std::string(entry->e_name.bv_val) + (attributes == nullptr ? " whole" : ""));
        if (!sends) return false;
        ++m_rs->sr_nentries;
        return true;
    }
    void limit(int result) override { tell("limit " + std::to_string(result)); }
    void abandoned() override { tell("abandoned"); }
    bool failed(const Failure& failure) override {
        tell("failed " + std::to_string(failure.code));
        return goesOn;
    }
    bool pageEnds(OpenPage* page) override {
        tell(std::string("pageEnds") + (page->pending == nullptr ? "" : " with one left over"));
        if (goesOn) kept = std::move(*page);
        return goesOn;
    }
    void end() override { tell("end"); }

    std::vector<std::string> told;
    bool sends = true;
    bool goesOn = false;
    OpenPage kept;

  private:
    void tell(std::string what) { told.push_back(std::move(what)); }

    SlapReply* const m_rs;
};

class ReplyTest : public searchtest::Fixture {
  protected:
    ReplyTest() {
        m_op->ors_slimit = m_op->ors_tlimit = SLAP_NO_LIMIT;
        m_op->ors_attrs = &m_attributes;
        slap_cids.sc_pagedResults = 3;
        m_op->o_controls = m_controls;
    }
    // The request asks for a page, the first one or that of the cookie.
    void askForPage(int size, const std::string& cookie = "") {
        m_cookie = cookie;
        m_state.ps_size = size;
        m_state.ps_cookieval = {m_cookie.size(), m_cookie.data()};
        m_op->o_pagedresults = SLAP_CONTROL_NONCRITICAL;
        m_op->o_pagedresults_state = &m_state;
    }
    SearchReply reply() { return {m_op, m_operation.reply(), &m_policy}; }
    static SharedEntry entry(const std::string& name) { return EntryMaker::parse("dn: cn=" + name + "\n"); }

    standin::FakeConnection m_connection;
    standin::FakeOperation m_operation{m_connection};
    Operation* const m_op = m_operation.op();
    RecordingPolicy m_policy{m_operation.reply()};
    AttributeName m_attributes{};
    PagedResultsState m_state{};
    std::string m_cookie;
    void* m_controls[SLAP_MAX_CIDS] = {};
};

TEST_F(ReplyTest, APlainSearchIsItsEntriesAndItsEnd) {
    SearchReply reply = this->reply();
    SharedHandle open;
    EXPECT_TRUE(reply.resume(&open));
    EXPECT_EQ(open, nullptr);
    EXPECT_TRUE(reply.begin(nullptr));
    EXPECT_TRUE(reply.wantsMore());
    EXPECT_EQ(reply.deliver(entry("ann")), Delivery::GoesOn);
    EXPECT_FALSE(reply.isPaged());
    EXPECT_EQ(reply.pageSize(), 0);
    reply.end();
    EXPECT_THAT(m_policy.told, ElementsAre("objectsFollow", "entry cn=ann whole", "end"));
}

TEST_F(ReplyTest, EntriesAreSentWithTheAttributesThatWereAskedFor) {
    SearchReply reply = this->reply();
    reply.begin(&m_attributes);
    reply.deliver(entry("ann"));
    EXPECT_THAT(m_policy.told, ElementsAre("objectsFollow", "entry cn=ann"));
}

TEST_F(ReplyTest, AnEntryThatCannotBeSentEndsTheSearch) {
    m_policy.sends = false;
    SearchReply reply = this->reply();
    reply.begin(nullptr);
    EXPECT_EQ(reply.deliver(entry("ann")), Delivery::Ended);
}

TEST_F(ReplyTest, ALimitIsToldBeforeTheObjectBeyondIt) {
    m_op->ors_slimit = 1;
    SearchReply reply = this->reply();
    EXPECT_EQ(reply.sizeLimit(), 1);
    EXPECT_TRUE(reply.wantsMore());
    reply.deliver(entry("ann"));
    EXPECT_FALSE(reply.wantsMore());
    EXPECT_THAT(m_policy.told, ElementsAre("entry cn=ann whole", "limit 4"));
}

TEST_F(ReplyTest, NobodyIsToldOfALimitWhoHasGone) {
    m_op->ors_slimit = 0;
    m_op->o_abandon = 1;
    SearchReply reply = this->reply();
    EXPECT_FALSE(reply.wantsMore());
    EXPECT_THAT(m_policy.told, ElementsAre("abandoned"));
}

TEST_F(ReplyTest, WhetherAFailureEndsASearchIsThePolicysToSay) {
    SearchReply reply = this->reply();
    const Failure failure{nullptr, "call ", VEX_BROKEN_SESSION, Failure::In::Objects};
    EXPECT_FALSE(reply.fail(failure));
    m_policy.goesOn = true;
    EXPECT_TRUE(reply.fail(failure));
}

TEST_F(ReplyTest, AnEntryForAFullPageIsLeftOver) {
    askForPage(1);
    SearchReply reply = this->reply();
    SharedHandle open;
    EXPECT_TRUE(reply.resume(&open));
    reply.begin(nullptr);
    EXPECT_EQ(reply.deliver(entry("ann")), Delivery::GoesOn);
    EXPECT_EQ(reply.deliver(entry("bob")), Delivery::PageIsFull);
    EXPECT_FALSE(reply.endPage(nullptr));
    EXPECT_THAT(m_policy.told,
                ElementsAre("objectsFollow", "entry cn=ann whole", "pageEnds with one left over"));
    EXPECT_EQ(standin::liveEntries(), 0) << "it goes with a page that does not stay open";
}

TEST_F(ReplyTest, APageThatStaysOpenIsThePolicysWithItsSearch) {
    askForPage(0);
    m_state.ps_size = 1;
    m_policy.goesOn = true;
    SearchReply reply = this->reply();
    reply.deliver(entry("ann"));
    reply.deliver(entry("bob"));
    const auto handle = std::make_shared<LdapSearchHandle>();
    EXPECT_TRUE(reply.endPage(handle));
    EXPECT_EQ(m_policy.kept.handle, handle);
    EXPECT_STREQ(m_policy.kept.pending->e_name.bv_val, "cn=bob");
}

TEST_F(ReplyTest, WhatThePageBeforeLeftOverComesFirst) {
    const auto handle = std::make_shared<LdapSearchHandle>();
    m_handles.issue(1, "", {handle, entry("ann"), 2, {7, 9}});
    const std::uint64_t cookie[] = {2, 7, 9};
    askForPage(2, std::string(reinterpret_cast<const char*>(cookie), sizeof cookie));
    m_state.ps_cookie = 2;
    m_state.ps_count = 2;
    SearchReply reply = this->reply();
    SharedHandle open;
    EXPECT_TRUE(reply.resume(&open));
    EXPECT_EQ(open, handle);
    EXPECT_TRUE(reply.begin(nullptr));
    EXPECT_THAT(m_policy.told, ElementsAre("entry cn=ann whole", "objectsFollow"));
    EXPECT_EQ(reply.sent(), 1);
    EXPECT_EQ(reply.sentInAllPages(), 3);
}

TEST_F(ReplyTest, ARefusedPageEndsTheRequest) {
    askForPage(2, "x");
    SearchReply reply = this->reply();
    SharedHandle open;
    EXPECT_FALSE(reply.resume(&open));
    EXPECT_THAT(m_policy.told, ElementsAre("rejected 2"));
}

TEST_F(ReplyTest, OneObjectMoreThanThereIsRoomForIsAskedFor) {
    const struct {
        int page;
        int limit;
        int sent;
        std::size_t most;
    } cases[] = {{0, SLAP_NO_LIMIT, 0, std::size_t{1} << 31},
                 {0, 7, 0, 8},
                 {0, 7, 2, 6},
                 {5, SLAP_NO_LIMIT, 1, 5},
                 {5, 3, 0, 4},
                 {3, 5, 0, 4},
                 {3, 5, 4, 1}};
    for (const auto& one : cases) {
        m_op->ors_slimit = one.limit;
        m_op->o_pagedresults = SLAP_CONTROL_NONE;
        if (one.page > 0) askForPage(one.page);
        m_operation.reply()->sr_nentries = one.sent;
        EXPECT_EQ(reply().mostObjects(), one.most) << one.page << " " << one.limit << " " << one.sent;
    }
}

TEST_F(ReplyTest, TheOnlyEntryIsSentIfItPassesTheFilter) {
    EXPECT_FALSE(reply().answerWith(entry("ann").get()));
    ASSERT_EQ(m_connection.sent().size(), 1U);
    standin::filterAnswers(LDAP_COMPARE_FALSE);
    EXPECT_FALSE(reply().answerWith(entry("ann").get()));
    EXPECT_EQ(m_connection.sent().size(), 1U);
    EXPECT_THAT(m_policy.told, ElementsAre("rejected 0", "rejected 32"));
}

}  // namespace
