// SPDX-License-Identifier: Apache-2.0
// Paged results: pages, cookies, what is registered and what is released.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <set>

#include "backend/base/settings.h"
#include "search/fixture_testing.h"
#include "search/search_testing.h"
#include "tests/standin/captured.h"
#include "vorn/thread.h"

#include "tests/standin/slapd_standin.h"

namespace {

using searchtest::cookieOf;
using searchtest::Paged;
using searchtest::person;
using searchtest::Request;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr char kPagedOid[] = "1.2.840.113556.1.4.319";

class PagingTest : public searchtest::Fixture {
  protected:
    void searchFinds(int count, int end = VEX_END_OF_RESULTS) {
        std::vector<standin::Object> people;
        for (int i = 0; i < count; ++i) people.push_back(person("p" + std::to_string(i)));
        standin::search(std::move(people), end);
    }

    std::vector<standin::Sent> page(int size, const std::string& cookie = "", int sizeLimit = SLAP_NO_LIMIT) {
        return pageOf(m_client, size, cookie, sizeLimit);
    }

    static std::vector<standin::Sent> pageOf(searchtest::Client& client, int size, const std::string& cookie,
                                             int sizeLimit = SLAP_NO_LIMIT) {
        const Paged paged{size, cookie};
        Request request;
        request.paged = &paged;
        request.sizeLimit = sizeLimit;
        return client.search(request);
    }

    // "p0 p1 | 0 controls=1 | 32 controls=0": entries and results in their order.
    static std::string shape(const std::vector<standin::Sent>& sent) {
        std::string text;
        for (const auto& one : sent) {
            if (!text.empty()) text += one.isEntry ? " " : " | ";
            text += one.isEntry
                        ? one.text.substr(7, 2)
                        : std::to_string(one.code) + " controls=" + std::to_string(one.controls.size());
        }
        return text;
    }
};

// ------------------------------------------------------------------- pages

TEST_F(PagingTest, PageSizeTwoOverFiveResultsAnswersTwoTwoAndOne) {
    searchFinds(5);
    const auto first = page(2);
    EXPECT_EQ(shape(first), "p0 p1 | 0 controls=1");
    EXPECT_EQ(first.back().controls[0].oid, kPagedOid);
    EXPECT_FALSE(first.back().controls[0].critical);
    EXPECT_EQ(cookieOf(first.back()).size(), 24U);

    const auto second = page(2, cookieOf(first.back()));
    EXPECT_EQ(shape(second), "p2 p3 | 0 controls=1");

    // The last page's result is sent once more, as every ending's is.
    const auto third = page(2, cookieOf(second.back()));
    ASSERT_EQ(third.size(), 3U);
    EXPECT_THAT(third[0].text, HasSubstr("CN=p4"));
    EXPECT_EQ(third[1].code, LDAP_SUCCESS);
    ASSERT_EQ(third[1].controls.size(), 1U);
    EXPECT_EQ(cookieOf(third[1]), "");
}

TEST_F(PagingTest, PageSizeTwoOverFourResultsEndsWithoutAControlOnTheSecondPage) {
    searchFinds(4);
    const auto first = page(2);
    const auto second = page(2, cookieOf(first.back()));
    EXPECT_EQ(shape(second), "p2 p3 | 0 controls=0");
}

TEST_F(PagingTest, TheLastPagesResultIsSentTwiceTheSecondTimeWithoutAControl) {
    searchFinds(5);
    const auto first = page(3);
    const auto last = page(3, cookieOf(first.back()));
    EXPECT_EQ(shape(last), "p3 p4 | 0 controls=1 | 0 controls=0");
    EXPECT_EQ(last[2].controls[0].oid, kPagedOid);
    EXPECT_FALSE(last[2].controls[0].critical);
    const PagedResultsState& state = m_client.connection().connection()->c_pagedresults_state;
    EXPECT_EQ(state.ps_cookie, 0U);
    EXPECT_EQ(state.ps_count, 5);
}

TEST_F(PagingTest, AnObjectThatIsNoEntryDoesNotMakeAFurtherPage) {
    auto marked = person("p1");
    marked.push_back({"_nssEntryInvalid", {"FALSE"}});
    standin::search({person("p0"), marked});
    EXPECT_EQ(shape(page(1)), "p0 | 0 controls=0");
}

TEST_F(PagingTest, ALaterPageThatFindsNoFurtherEntryIsASuccessWithoutAControl) {
    searchFinds(3);
    const auto first = page(2);
    m_client.connection().loseEntries();
    EXPECT_EQ(shape(page(2, cookieOf(first.back()))), "0 controls=0");
}

TEST_F(PagingTest, AFailedSendOfThePendingEntryEndsThePageWithItsResultTwice) {
    searchFinds(5);
    const auto first = page(2);
    m_client.connection().entriesAnswer(50);
    const auto second = page(2, cookieOf(first.back()));
    EXPECT_EQ(shape(second), "50 controls=0 | 50 controls=0");
    EXPECT_EQ(second[0].text, "send_search_entry Failed, lrc = 50");
    EXPECT_EQ(second[1].text, second[0].text);
}

// Only the first page knows that it searches for DNs: what later pages find is sent as found.
TEST_F(PagingTest, LaterPagesOfASearchForDnsFetchNothing) {
    searchFinds(3);
    for (const char* name : {"p0", "p1", "p2"})
        standin::fetch("CN=" + std::string(name) + ",DC=example,DC=com", person(name));
    Request request;
    request.base = "cn=$,dc=example,dc=com";
    Paged paged{1, ""};
    request.paged = &paged;
    const auto first = m_client.search(request);
    EXPECT_EQ(shape(first), "p0 | 0 controls=1");
    standin::forgetCalls();
    paged.cookie = cookieOf(first.back());
    const auto second = m_client.search(request);
    EXPECT_EQ(shape(second), "p1 | 0 controls=1");
    EXPECT_THAT(standin::requests(), ElementsAre("vexLdapSearchNext(search1)"));
}

TEST_F(PagingTest, APageThatSendsOnlyThePendingEntryIsASuccessAndThenRepeatedAsNoSuchObject) {
    searchFinds(3);
    const auto first = page(2);
    const auto second = page(2, cookieOf(first.back()));
    ASSERT_EQ(second.size(), 3U);
    EXPECT_THAT(second[0].text, HasSubstr("CN=p2"));
    EXPECT_EQ(second[1].code, LDAP_SUCCESS);
    EXPECT_EQ(cookieOf(second[1]), "");
    EXPECT_EQ(second[2].code, LDAP_NO_SUCH_OBJECT);
}

TEST_F(PagingTest, AFirstPageWithoutEntriesIsNoSuchObjectWithoutAControl) {
    const auto first = page(2);
    EXPECT_EQ(shape(first), "32 controls=0");
}

TEST_F(PagingTest, TheThreePagesShareOneSessionAndOneSearch) {
    searchFinds(5);
    const auto first = page(2);
    const auto second = page(2, cookieOf(first.back()));
    page(2, cookieOf(second.back()));
    EXPECT_THAT(
        standin::requests(),
        ElementsAre("vexSessionOpen(1, 21)", "vexSetOption(session1, 64, 0)",
                    R"~(vexLdapSearchOpen(session1, "", "(uid=ann)", "dc=example,dc=com", [], 2, -1, 2))~",
                    "vexLdapSearchNext(search1)", "vexLdapSearchNext(search1)", "vexLdapSearchNext(search1)",
                    "vexLdapSearchNext(search1)", "vexLdapSearchNext(search1)", "vexLdapSearchNext(search1)"))
        << "a registered search is released when its connection closes";
    m_handles.delSearchHandle(1);
    EXPECT_EQ(standin::requests().at(standin::requests().size() - 2), "vexLdapSearchClose(search1)");
    EXPECT_EQ(standin::requests().back(), "vexSessionClose(session1)");
}

TEST_F(PagingTest, AControlThatSlapdMarkedIgnoredIsNone) {
    searchFinds(3);
    const Paged paged{1, "", SLAP_CONTROL_IGNORED};
    Request request;
    request.paged = &paged;
    EXPECT_EQ(shape(m_client.search(request)), "p0 p1 p2 | 0 controls=0");
}

TEST_F(PagingTest, PageSizeZeroIsASuccessThatSaysSo) {
    const auto sent = page(0);
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].code, LDAP_SUCCESS);
    EXPECT_EQ(sent[0].text, "search abandoned by pagedResult size=0");
    EXPECT_THAT(standin::requests(), IsEmpty());
}

TEST_F(PagingTest, LinesOfThePagesAreLogged) {
    const standin::CapturedLog log;
    searchFinds(3);
    const auto first = page(2);
    page(2, cookieOf(first.back()));
    EXPECT_TRUE(log.has("vex search: already received entries count:0, pagesize:2, size limit:-1"));
    EXPECT_TRUE(log.has("vex search: already received entries count:2, pagesize:2, size limit:-1"));
    EXPECT_TRUE(
        log.has("send_paged_response: rs->sr_nentries:2, total entries:2, handle->total:3, "
                "handle->isLastPage:1"));
    // The lower half of the address.
    char handle[16];
    std::snprintf(handle, sizeof handle, "0x%08x",
                  static_cast<unsigned>(reinterpret_cast<std::uint64_t>(m_handles.getSearchHandle(1).get())));
    EXPECT_EQ(log.count(std::string("setSearchHandle: connection_id:1, handle:") + handle), 1);
    EXPECT_THAT(log.records(), Not(Contains(HasSubstr("delSearchHandle"))));
    m_handles.delSearchHandle(1);
    m_handles.delSearchHandle(1);
    EXPECT_EQ(log.count("delSearchHandle: connection_id:1"), 1);
    EXPECT_EQ(log.count(std::string("delSearchHandle: handle:") + handle), 1);
}

TEST_F(PagingTest, TheLineOfAPageThatIsReplayedTellsTheListsLength) {
    vorn::Thread::SetThreadsActive(true);
    useCache();
    searchFinds(3);
    m_client.search(Request{});
    const standin::CapturedLog log;
    const auto first = page(2);
    page(2, cookieOf(first.back()));
    EXPECT_EQ(log.count("send_paged_response: rs->sr_nentries:2, total entries:2, "
                        "cacheLdapHandle->guidList->size():3"),
              1);
    EXPECT_EQ(log.count("send_paged_response: rs->sr_nentries:1, total entries:3, "
                        "cacheLdapHandle->guidList->size():3"),
              1);
}

TEST_F(PagingTest, APageThatStaysOpenSaysNothingOfACompleteSearch) {
    const standin::CapturedLog log;
    searchFinds(3);
    const auto first = page(2);
    EXPECT_FALSE(log.has("vex search complete on connection: 1"));
    page(2, cookieOf(first.back()));
    EXPECT_EQ(log.count("vex search complete on connection: 1"), 1);
}

// ------------------------------------------------------------------ limits

TEST_F(PagingTest, TheSizeLimitEndsThePages) {
    searchFinds(5);
    const auto first = page(2, "", 3);
    EXPECT_EQ(shape(first), "p0 p1 | 0 controls=1");
    // slapd hands over what the first page left of the limit.
    const auto second = page(2, cookieOf(first.back()), 1);
    EXPECT_EQ(shape(second), "p2 | 4 controls=0 | 32 controls=0");
}

TEST_F(PagingTest, APageThatReachesTheLimitCarriesNoCookie) {
    searchFinds(5);
    const auto first = page(2, "", 4);
    const auto second = page(2, cookieOf(first.back()), 2);
    EXPECT_THAT(shape(second), HasSubstr("p2 p3 | 4 controls=0"));
}

// ----------------------------------------------------------------- cookies

TEST_F(PagingTest, ACookieReplayedAfterANewerPageIsOld) {
    searchFinds(7);
    const auto first = page(2);
    page(2, cookieOf(first.back()));
    const auto replayed = page(2, cookieOf(first.back()));
    ASSERT_EQ(replayed.size(), 1U);
    EXPECT_EQ(replayed[0].code, LDAP_UNWILLING_TO_PERFORM);
    EXPECT_EQ(replayed[0].text, "paged results cookie is invalid or old");
}

std::string cookie(std::uint64_t count, std::uint64_t handle, std::uint64_t pending) {
    const std::uint64_t parts[] = {count, handle, pending};
    return {reinterpret_cast<const char*>(parts), sizeof parts};
}

TEST_F(PagingTest, CookiesThatThisConnectionDoesNotHaveAreInvalid) {
    searchFinds(7);
    const std::string issued = cookieOf(page(2).back());
    const std::string longer = issued + "x";
    std::uint64_t parts[3];
    std::memcpy(parts, issued.data(), sizeof parts);
    const std::string cases[] = {
        issued.substr(0, 23),                       // truncated
        longer,                                     // too long
        "x",                                        //
        cookie(3, parts[1], parts[2]),              // ahead of the stored one
        cookie(~0ULL, parts[1], parts[2]),          //
        cookie(2, 0, parts[2]),                     // no search
        cookie(2, parts[1], 0),                     // no entry
        cookie(2, parts[1] + 16, parts[2]),         // not issued
        cookie(2, parts[2], parts[1]),              //
        cookie(2, 0x4141414141414141, 0x42424242),  // somebody else's memory
    };
    for (const std::string& one : cases) {
        const auto sent = page(2, one);
        ASSERT_EQ(sent.size(), 1U);
        EXPECT_EQ(sent[0].code, LDAP_PROTOCOL_ERROR);
        EXPECT_EQ(sent[0].text, "paged results cookie is invalid");
    }
    EXPECT_EQ(shape(page(2, issued)), "p2 p3 | 0 controls=1") << "the issued cookie still works";
}

TEST_F(PagingTest, AnotherConnectionCannotUseTheCookie) {
    searchFinds(7);
    const std::string issued = cookieOf(page(2).back());
    searchtest::Client other(2);
    other.connection().connection()->c_pagedresults_state =
        m_client.connection().connection()->c_pagedresults_state;
    const auto sent = pageOf(other, 2, issued);
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].code, LDAP_PROTOCOL_ERROR);
}

TEST_F(PagingTest, OfTwoRequestsWithOneCookieOneContinues) {
    searchFinds(7);
    const std::string issued = cookieOf(page(2).back());
    Connection* connection = m_client.connection().connection();
    const PagedResultsState before = connection->c_pagedresults_state;
    EXPECT_EQ(shape(page(2, issued)), "p2 p3 | 0 controls=1");
    connection->c_pagedresults_state = before;  // as the other request saw it
    const auto sent = page(2, issued);
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].text, "paged results cookie is invalid");
}

TEST_F(PagingTest, ACookieTellsNothingOfTheProcess) {
    std::set<std::uint64_t> numbers;
    for (int i = 0; i < 20; ++i) {
        searchFinds(5);
        const std::string first = cookieOf(page(2).back());
        const std::string second = cookieOf(page(2, first).back());
        for (const std::string& issued : {first, second}) {
            std::uint64_t parts[3];
            std::memcpy(parts, issued.data(), sizeof parts);
            numbers.insert({parts[1], parts[2]});
        }
    }
    EXPECT_EQ(numbers.size(), 80U) << "each is drawn for its cookie";
    // The heap's and the library's addresses leave the upper 16 bits empty.
    const auto wide = std::count_if(numbers.begin(), numbers.end(), [](auto one) { return one >> 48 != 0; });
    EXPECT_GT(wide, 60);
}

TEST_F(PagingTest, OfSeveralOpenPagesTheOldestEndsBeyondTheBound) {
    std::vector<std::string> cookies;
    for (std::size_t i = 0; i <= SearchHandleManager::kMaxOfConnection; ++i) {
        searchFinds(3);
        cookies.push_back(cookieOf(page(2).back()));
    }
    PagedResultsState& state = m_client.connection().connection()->c_pagedresults_state;
    const PagedResultsState before = state;
    EXPECT_EQ(page(2, cookies[0]).back().text, "paged results cookie is invalid");
    EXPECT_EQ(shape(page(2, cookies[1])), "p2 | 0 controls=1 | 32 controls=0");
    state = before;  // slapd remembers the last page's count for all of a connection's cookies
    EXPECT_EQ(shape(page(2, cookies.back())), "p2 | 0 controls=1 | 32 controls=0");
}

TEST_F(PagingTest, AFirstPageResetsTheConnectionsCookie) {
    searchFinds(7);
    page(2);
    EXPECT_EQ(m_client.connection().connection()->c_pagedresults_state.ps_cookie, 2U);
    standin::answer("vexSessionOpen", 6);
    page(2);
    EXPECT_EQ(m_client.connection().connection()->c_pagedresults_state.ps_cookie, 0U);
}

// ---------------------------------------------- several searches on a connection

TEST_F(PagingTest, ASecondPagedSearchOnAConnectionIsReachableThroughItsCookieOnly) {
    searchFinds(3);
    searchFinds(3);
    const auto first = page(2);
    const SharedHandle registered = m_handles.getSearchHandle(1);
    const auto second = page(2);
    EXPECT_EQ(m_handles.getSearchHandle(1), registered) << "the first handle stays";
    EXPECT_EQ(shape(page(2, cookieOf(second.back()))), "p2 | 0 controls=1 | 32 controls=0");
    EXPECT_THAT(standin::requests(), Not(Contains("vexSessionClose(session2)")));
}

TEST_F(PagingTest, WhateverCookiesHoldIsFreedWhenTheConnectionCloses) {
    searchFinds(5);
    searchFinds(5);
    page(2);
    page(2);
    EXPECT_EQ(standin::liveEntries(), 2) << "a pending entry for each cookie";
    m_handles.delSearchHandle(1);
    EXPECT_EQ(standin::liveEntries(), 0);
    EXPECT_THAT(standin::requests(), Contains("vexSessionClose(session1)"));
    EXPECT_THAT(standin::requests(), Contains("vexSessionClose(session2)"));
}

TEST_F(PagingTest, WithoutARegisteredHandleAPlainSearchIsReleasedAtItsEnd) {
    searchFinds(1);
    m_client.search(Request{});
    EXPECT_EQ(standin::requests().back(), "vexSessionClose(session1)");
}

TEST_F(PagingTest, WithARegisteredHandleAPlainSearchIsReleasedWhenTheConnectionCloses) {
    searchFinds(5);
    page(2);
    searchFinds(1);
    m_client.search(Request{});
    EXPECT_THAT(standin::requests(), Not(Contains("vexSessionClose(session2)")));
    m_handles.delSearchHandle(1);
    EXPECT_THAT(standin::requests(), Contains("vexSessionClose(session2)"));
}

TEST_F(PagingTest, ABerFailureDropsTheControlAndEndsTheRequestNormally) {
    searchFinds(3);
    standin::answer("vex_ber_flatten2", -1);
    EXPECT_EQ(shape(page(2)), "p0 p1 | 0 controls=0");
    EXPECT_EQ(standin::liveEntries(), 0);
    EXPECT_EQ(m_handles.getSearchHandle(1), nullptr);
    const PagedResultsState& state = m_client.connection().connection()->c_pagedresults_state;
    EXPECT_EQ(state.ps_cookie, 2U) << "what the cookie would have been";
    EXPECT_EQ(state.ps_count, 2);
}

TEST_F(PagingTest, ABerFailureOnTheLastPageDropsItsControlToo) {
    searchFinds(1);
    standin::answer("vex_ber_flatten2", -1);
    EXPECT_EQ(shape(page(2)), "p0 | 0 controls=0");
    const PagedResultsState& state = m_client.connection().connection()->c_pagedresults_state;
    EXPECT_EQ(state.ps_cookie, 0U);
    EXPECT_EQ(state.ps_count, 1);
}

}  // namespace
