// SPDX-License-Identifier: Apache-2.0
// Cookies of paged searches: in which order they are checked, what a refused one leaves
// as it was, and what the registry says of the searches that they name.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "backend/base/settings.h"
#include "search/fixture_testing.h"
#include "search/search_testing.h"
#include "tests/standin/captured.h"
#include "vorn/settings.h"
#include "vorn/temporary_folder_testing.h"

#include "tests/standin/slapd_standin.h"

namespace {

using searchtest::cookieOf;
using searchtest::Paged;
using searchtest::person;
using searchtest::Request;
using testing::HasSubstr;
using testing::IsEmpty;

class CookieTest : public searchtest::Fixture {
  protected:
    static void searchFinds(int count) {
        std::vector<standin::Object> people;
        for (int i = 0; i < count; ++i) people.push_back(person("p" + std::to_string(i)));
        standin::search(std::move(people));
    }
    std::vector<standin::Sent> page(int size, const std::string& cookie = "", Request request = {}) {
        const Paged paged{size, cookie};
        request.paged = &paged;
        return m_client.search(request);
    }
    // The one result of a page that is refused.
    standin::Sent refusal(int size, const std::string& cookie, Request request = {}) {
        const auto sent = page(size, cookie, std::move(request));
        EXPECT_EQ(sent.size(), 1U);
        return sent.at(0);
    }
};

// A cookie with this count that names nothing.
std::string nameless(std::uint64_t count) {
    const std::uint64_t parts[] = {count, 0, 0};
    return {reinterpret_cast<const char*>(parts), sizeof parts};
}

TEST_F(CookieTest, AWrongLengthIsInvalidEvenWhenTheCountIsOld) {
    searchFinds(7);
    const std::string old = cookieOf(page(2).back());
    page(2, old);
    for (const std::string& one : {old.substr(0, 23), old.substr(0, 8), old + "x"}) {
        const auto sent = refusal(2, one);
        EXPECT_EQ(sent.code, LDAP_PROTOCOL_ERROR) << one.size();
        EXPECT_EQ(sent.text, "paged results cookie is invalid") << one.size();
    }
}

TEST_F(CookieTest, AnOldCountIsOldEvenWhenTheCookieNamesNothing) {
    searchFinds(7);
    page(2, cookieOf(page(2).back()));
    const auto sent = refusal(2, nameless(2));
    EXPECT_EQ(sent.code, LDAP_UNWILLING_TO_PERFORM);
    EXPECT_EQ(sent.text, "paged results cookie is invalid or old");
}

TEST_F(CookieTest, PageSizeZeroIsASuccessWhateverTheCookie) {
    searchFinds(7);
    page(2);
    for (const std::string& one : {std::string("x"), nameless(2), nameless(1), nameless(~0ULL)}) {
        const auto sent = refusal(0, one);
        EXPECT_EQ(sent.code, LDAP_SUCCESS);
        EXPECT_EQ(sent.text, "search abandoned by pagedResult size=0");
    }
}

TEST_F(CookieTest, PageSizeZeroReleasesNothing) {
    searchFinds(5);
    const std::string issued = cookieOf(page(2).back());
    EXPECT_EQ(refusal(0, issued).code, LDAP_SUCCESS);
    const auto next = page(2, issued);
    ASSERT_EQ(next.size(), 3U);
    EXPECT_THAT(next[0].text, HasSubstr("CN=p2"));
    EXPECT_THAT(next[1].text, HasSubstr("CN=p3"));
}

// A base that would be rejected is not looked at when the page is refused already.
TEST_F(CookieTest, ThePageIsCheckedBeforeTheBase) {
    const vorn::test::TemporaryFolder folder;
    setenv("ZANTHE_CONF", folder.write("host", "domain.name = a.b\nzone.dn = CN=z,DC=c,DC=b\n").c_str(), 1);
    vorn::Props(true, true);
    gNetgroupUseRfc2307 = true;
    useMap("nisNetgroup = nisNetgroup\n");
    Request request;
    request.base = "dc=else,dc=where";
    request.attribute = "objectClass";
    request.value = "nisNetgroup";
    EXPECT_EQ(refusal(0, "", request).text, "search abandoned by pagedResult size=0");
    EXPECT_EQ(refusal(2, "x", request).text, "paged results cookie is invalid");
    EXPECT_EQ(refusal(2, "", request).code, LDAP_OTHER) << "the base's own rejection";
}

// The uid in the base is a filter for the first page only: on later ones an entry under
// another name is no answer to a base search.
TEST_F(CookieTest, LaterPagesOfAUidsSearchTestTheBase) {
    gFetchByDnUID = true;
    useMap("posixAccount = User\nposixAccount.uid = sAMAccountName\n");
    searchFinds(4);
    Request request;
    request.base = "uid=jdoe,ou=people,dc=a";
    request.scope = LDAP_SCOPE_BASE;
    request.attribute = "objectClass";
    request.value = nullptr;
    const auto first = page(1, "", request);
    ASSERT_EQ(first.size(), 2U);
    const auto second = page(1, cookieOf(first.back()), request);
    ASSERT_EQ(second.size(), 2U);
    EXPECT_THAT(second[0].text, HasSubstr("CN=p1")) << "converted for the page before";
    EXPECT_THAT(second[1].controls, IsEmpty()) << "p2 and p3 are passed over";
}

// ----------------------------------------------------------------- controls

// slapd frees a control with its operation: the control itself, and slapd's list of them.
TEST_F(CookieTest, AControlIsMadeInTheOperationsMemory) {
    searchFinds(3);
    m_client.search(Request{});
    EXPECT_EQ(m_client.allocations(), 0);
    searchFinds(3);
    page(2);
    EXPECT_EQ(m_client.allocations(), 2);
}

// The value's bytes are the encoder's, which is emptied when the control has them.
TEST_F(CookieTest, TheEncoderLeavesNothingBehind) {
    searchFinds(3);
    page(2, cookieOf(page(2).back()));
    const auto calls = standin::calls();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "vex_ber_flatten2(ber, value, 0)"), 2);
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "vex_ber_free_buf(ber)"), 2);
}

TEST_F(CookieTest, AValueThatCannotBeEncodedIsNoControl) {
    searchFinds(3);
    standin::answer("vex_ber_printf", -1);
    const auto sent = page(2);
    ASSERT_EQ(sent.size(), 3U);
    EXPECT_THAT(sent.back().controls, IsEmpty());
    EXPECT_EQ(m_handles.getSearchHandle(1), nullptr);
}

TEST_F(CookieTest, APageIsASuccessWhateverResultTheReplyHad) {
    searchFinds(3);
    Request request;
    request.before.sr_err = LDAP_OTHER;
    const auto first = page(2, "", request);
    EXPECT_EQ(first.back().code, LDAP_SUCCESS);
    EXPECT_EQ(page(2, cookieOf(first.back()), request).at(1).code, LDAP_SUCCESS);
}

TEST_F(CookieTest, APageOfNothingBehindASingleEntryIsASuccess) {
    searchFinds(2);
    const std::string issued = cookieOf(page(1).back());
    m_client.connection().loseEntries();
    const auto sent = page(1, issued);
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].code, LDAP_SUCCESS);
}

// ----------------------------------------------------------------- registry

int countOf(const std::vector<std::string>& records, const std::string& part) {
    return static_cast<int>(std::count_if(records.begin(), records.end(), [&](const std::string& record) {
        return record.find(part) != std::string::npos;
    }));
}

TEST_F(CookieTest, OnlyAConnectionsFirstSearchIsLoggedAsRegistered) {
    searchFinds(3);
    searchFinds(3);
    const standin::CapturedLog log;
    page(2);
    page(2);
    EXPECT_EQ(countOf(log.records(), "setSearchHandle: connection_id:1,"), 1);
}

TEST_F(CookieTest, TheConnectionIsToldBeforeTheHandleThatItReleases) {
    m_handles.setSearchHandle(1, std::make_shared<LdapSearchHandle>());
    const standin::CapturedLog log;
    m_handles.delSearchHandle(1);
    const auto records = log.records();
    ASSERT_EQ(records.size(), 2U);
    EXPECT_THAT(records[0], HasSubstr("delSearchHandle: connection_id:1"));
    EXPECT_THAT(records[1], HasSubstr("delSearchHandle: handle:0x"));
}

TEST_F(CookieTest, ARegisteredConnectionWithoutASearchHasNoLineOfOne) {
    m_handles.setSearchHandle(1, nullptr);
    const standin::CapturedLog log;
    m_handles.delSearchHandle(1);
    EXPECT_EQ(log.records().size(), 1U);
    EXPECT_TRUE(log.has("delSearchHandle: connection_id:1"));
    EXPECT_EQ(m_handles.getSearchHandle(1), nullptr);
}

}  // namespace
