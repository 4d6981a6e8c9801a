// SPDX-License-Identifier: Apache-2.0
#include "tests/standin/vex_standin.h"

#include <gmock/gmock.h>

#include <cstring>
#include <stdexcept>
#include <thread>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class VexStandin : public testing::Test {
  protected:
    void SetUp() override { standin::reset(); }
    void TearDown() override { standin::reset(); }

    vexSession* open() {
        vexSession* session = nullptr;
        EXPECT_EQ(vexSessionOpen(1, 21, &session), VEX_OK);
        return session;
    }
};

TEST_F(VexStandin, RecordsEveryCallWithItsArguments) {
    vexSession* session = open();
    const int one = 1;
    vexSetOption(session, 4, &one, sizeof one);
    vexSetOption(nullptr, 4, &one, sizeof one);
    const char* names[] = {"a", "b", nullptr};
    standin::search({{{"_dn", {"CN=a"}}}});
    vexSearchHandle* search = nullptr;
    ASSERT_EQ(vexLdapSearchOpen(session, "", "(uid=a)", "DC=x", names, 2, -1, 0, &search), VEX_OK);
    EXPECT_EQ(search->session, session);
    EXPECT_EQ(search->total, 1);
    vexObject* object = nullptr;
    EXPECT_EQ(vexLdapSearchNext(search, &object), VEX_OK);
    vexFreeObject(object);
    EXPECT_EQ(vexLdapSearchNext(search, &object), VEX_END_OF_RESULTS);
    vexLdapSearchClose(search);
    vexSessionClose(session);
    EXPECT_THAT(
        standin::calls(),
        ElementsAre("vexSessionOpen(1, 21)", "vexSetOption(session1, 4, 1)", "vexSetOption(null, 4, 1)",
                    "vexLdapSearchOpen(session1, \"\", \"(uid=a)\", \"DC=x\", [\"a\",\"b\"], 2, -1, 0)",
                    "vexLdapSearchNext(search1)", "vexFreeObject(object1)", "vexLdapSearchNext(search1)",
                    "vexLdapSearchClose(search1)", "vexSessionClose(session1)"));
    EXPECT_EQ(standin::requests().size(), 8u);
    EXPECT_THAT(standin::leaks(), IsEmpty());
    EXPECT_THAT(standin::failures(), IsEmpty());
}

TEST_F(VexStandin, AnswersWaitInLineAndThenTheTableSpeaks) {
    standin::answer("vexSessionOpen", 6);
    standin::answer("vexSessionOpen", 3);
    vexSession* session = nullptr;
    EXPECT_EQ(vexSessionOpen(1, 21, &session), 6);
    EXPECT_EQ(vexSessionOpen(1, 21, &session), 3);
    EXPECT_EQ(session, nullptr);
    EXPECT_EQ(vexSessionOpen(1, 21, &session), 0);
    standin::answerAlways("vexSessionOpen", 12);
    vexSession* other = nullptr;
    EXPECT_EQ(vexSessionOpen(1, 21, &other), 12);
    EXPECT_EQ(vexSessionOpen(1, 21, &other), 12);
    EXPECT_THROW(standin::answer("vexSessionOpne", 6), std::invalid_argument);
    EXPECT_THAT(standin::leaks(), ElementsAre("session1"));
}

TEST_F(VexStandin, NoticesLeaksDoubleFreesAndUsesAfterwards) {
    vexSession* session = open();
    vexObject* object = standin::makeObject({{"cn", {"ann", "bob"}}});
    char* text = nullptr;
    ASSERT_EQ(vexGetAttributeStr(session, object, "CN", &text), VEX_OK);
    EXPECT_STREQ(text, "ann");
    vexBlob* values = nullptr;
    int count = 0;
    ASSERT_EQ(vexGetAttributeBlobList(session, object, "cn", &values, &count), VEX_OK);
    EXPECT_EQ(count, 2);
    EXPECT_THAT(standin::leaks(),
                ElementsAre("session1", "object1", "list1", "string \"ann\" of vexGetAttributeStr"));
    vexFreeString(text);
    vexFreeAttributeBlobList(values, 1);
    vexFreeObject(object);
    vexFreeObject(object);
    EXPECT_EQ(vexGetAttributeStr(session, object, "cn", &text), VEX_INVALID_ARGUMENT);
    vexSessionClose(session);
    EXPECT_EQ(vexSessionClose(session), VEX_BROKEN_HANDLE);
    EXPECT_THAT(standin::failures(),
                ElementsAre("vexFreeAttributeBlobList(list1, 1): another count was handed out",
                            "vexFreeObject(object1): the object is freed",
                            "vexGetAttributeStr(session1, object1, \"cn\"): the object is freed",
                            "vexSessionClose(session1): the session is closed"));
    EXPECT_THAT(standin::leaks(), IsEmpty());
}

TEST_F(VexStandin, ASearchOfAClosedSessionMayOnlyBeClosed) {
    vexSession* session = open();
    vexSearchHandle* search = nullptr;
    ASSERT_EQ(vexLdapSearchOpen(session, "", "", "", nullptr, 2, -1, 0, &search), VEX_OK);
    vexSessionClose(session);
    vexObject* object = nullptr;
    EXPECT_EQ(vexLdapSearchNext(search, &object), VEX_BROKEN_HANDLE);
    EXPECT_EQ(standin::failures().size(), 1u);
    EXPECT_EQ(vexLdapSearchClose(search), VEX_OK);
    EXPECT_EQ(standin::failures().size(), 1u);
}

TEST_F(VexStandin, WalksAttributesAndReadsStrangeValues) {
    vexObject* object = standin::makeObject({{"cn", {"ann"}},
                                             standin::unreadable("bad", 8),
                                             standin::nameless(),
                                             {"jpegPhoto", {standin::noData(), std::string("a\0b", 3)}}});
    unsigned cursor = 0;
    char* name = nullptr;
    ASSERT_EQ(vexGetFirstAttribute(nullptr, object, &cursor, &name), VEX_OK);
    std::vector<std::string> names;
    int code;
    do {
        names.push_back(name ? name : "(null)");
        vexFreeString(name);
    } while ((code = vexGetNextAttribute(nullptr, object, &cursor, &name)) == VEX_OK);
    EXPECT_EQ(code, VEX_NO_SUCH_ATTRIBUTE);
    EXPECT_THAT(names, ElementsAre("cn", "bad", "(null)", "jpegPhoto"));
    vexBlob* values = nullptr;
    int count = 0;
    EXPECT_EQ(vexGetAttributeBlobList(nullptr, object, "bad", &values, &count), 8);
    EXPECT_EQ(vexGetAttributeBlobList(nullptr, object, "none", &values, &count), VEX_NO_SUCH_ATTRIBUTE);
    ASSERT_EQ(vexGetAttributeBlobList(nullptr, object, "jpegPhoto", &values, &count), VEX_OK);
    vexFreeObject(object);
    EXPECT_EQ(values[0].data, nullptr);
    EXPECT_EQ(values[1].length, 3u);
    EXPECT_EQ(std::memcmp(values[1].data, "a\0b", 4), 0);
    vexFreeAttributeBlobList(values, count);
    EXPECT_THAT(standin::leaks(), IsEmpty());
}

TEST_F(VexStandin, ClonesLiveAndDieApart) {
    vexObject* object = standin::makeObject({{"cn", {"ann"}}});
    vexObject* clone = ChmCloneObject(object);
    vexFreeObject(object);
    int truth = 7;
    EXPECT_EQ(vexGetAttributeBool(nullptr, clone, "cn", &truth), VEX_OK);
    EXPECT_EQ(truth, 0);
    EXPECT_THAT(standin::leaks(), ElementsAre("object2"));
    vexFreeObject(clone);
}

TEST_F(VexStandin, SearchesAreMatchedFirstAndThenTakenInLine) {
    vexSession* session = open();
    standin::Match match;
    match.filter = "(uid=a)";
    match.scope = 2;
    standin::Found two;
    two.objects = {{{"cn", {"a"}}}, {{"cn", {"b"}}}};
    two.end = 6;
    standin::searchFor(match, two);
    standin::search({{{"cn", {"c"}}}});
    auto find = [&](const char* filter) {
        vexSearchHandle* search = nullptr;
        EXPECT_EQ(vexLdapSearchOpen(session, "", filter, "DC=x", nullptr, 2, -1, 0, &search), VEX_OK);
        std::string found;
        vexObject* object = nullptr;
        int code;
        while ((code = vexLdapSearchNext(search, &object)) == VEX_OK) {
            char* cn = nullptr;
            vexGetAttributeStr(session, object, "cn", &cn);
            found += cn;
            vexFreeString(cn);
            vexFreeObject(object);
        }
        vexLdapSearchClose(search);
        return found + std::to_string(code);
    };
    EXPECT_EQ(find("(uid=a)"), "ab6");
    EXPECT_EQ(find("(uid=x)"), "c7");
    EXPECT_EQ(find("(uid=a)"), "ab6");
    EXPECT_EQ(find("(uid=x)"), "7");
    vexSessionClose(session);
    EXPECT_THAT(standin::leaks(), IsEmpty());
}

TEST_F(VexStandin, AnswersFetchesAndLookups) {
    vexSession* session = open();
    standin::fetch("CN=a", {{"cn", {"a"}}});
    standin::fetchFails("CN=b", 12);
    standin::lookup("guid-1", {{"cn", {"a"}}});
    standin::lookupFails("guid-2", 6);
    vexObject* object = nullptr;
    EXPECT_EQ(vexLdapFetch(session, "", "CN=b", nullptr, &object), 12);
    EXPECT_EQ(vexLdapFetch(session, "", "CN=none", nullptr, &object), VEX_NO_SUCH_OBJECT);
    EXPECT_EQ(vexLookupObjectByGuid(session, "guid-2", &object), 6);
    EXPECT_EQ(vexLookupObjectByGuid(session, "none", &object), VEX_OBJECT_GONE);
    EXPECT_EQ(object, nullptr);
    EXPECT_EQ(vexLdapFetch(session, "", "CN=a", nullptr, &object), VEX_OK);
    vexFreeObject(object);
    EXPECT_EQ(vexLookupObjectByGuid(session, "guid-1", &object), VEX_OK);
    vexFreeObject(object);
    vexSessionClose(session);
}

TEST_F(VexStandin, ChecksPasswordsAgainstTheTable) {
    vexSession* session = open();
    standin::user("CN=ann", "secret");
    standin::user("CN=bob", "old", VEX_ACCOUNT_REFUSED);
    EXPECT_EQ(vexAuthValidatePlainTextUser(session, "CN=ann", "secret", 0), VEX_OK);
    EXPECT_EQ(vexAuthValidatePlainTextUser(session, "CN=ann", "Secret", 0), VEX_WRONG_PASSWORD);
    EXPECT_EQ(vexAuthChangePassword(session, "CN=ann", "Secret", "new"), VEX_WRONG_PASSWORD);
    EXPECT_EQ(vexAuthChangePassword(session, "CN=ann", "secret", "new"), VEX_OK);
    EXPECT_EQ(vexAuthValidatePlainTextUser(session, "CN=ann", "new", 0), VEX_OK);
    EXPECT_EQ(vexAuthValidatePlainTextUser(session, "CN=ann", "secret", 0), VEX_WRONG_PASSWORD);
    EXPECT_EQ(vexAuthChangePassword(session, "CN=nobody", "secret", "new"), VEX_NO_SUCH_USER);
    EXPECT_EQ(vexAuthValidatePlainTextUser(session, "CN=bob", "old", 0), VEX_ACCOUNT_REFUSED);
    EXPECT_EQ(vexAuthValidatePlainTextUser(session, nullptr, "x", 0), VEX_NO_SUCH_USER);
    EXPECT_EQ(vexAuthValidatePlainTextUser(nullptr, "CN=ann", "secret", 0), VEX_BROKEN_HANDLE);
    standin::acceptEveryone(true);
    EXPECT_EQ(vexAuthValidatePlainTextUser(session, "CN=any", "any", 0), VEX_OK);
    standin::acceptEveryone(false);
    standin::showPasswords(false);
    standin::forgetCalls();
    vexAuthValidatePlainTextUser(session, "CN=ann", "secret", 0);
    EXPECT_THAT(standin::calls(),
                ElementsAre("vexAuthValidatePlainTextUser(session1, \"CN=ann\", <hidden>, 0)"));
    vexSessionClose(session);
}

TEST_F(VexStandin, TellsHealthErrorsAndNames) {
    vexSession* session = open();
    int condition = 9, system = 9, code = 9;
    char* text = nullptr;
    EXPECT_EQ(vexSystemHealthInfo(session, 0, &condition, &system, &code, &text), VEX_OK);
    EXPECT_EQ(condition, 0);
    EXPECT_EQ(text, nullptr);
    standin::health(12, 2, -1, "no server");
    EXPECT_EQ(vexSystemHealthInfo(session, 0, &condition, &system, &code, &text), VEX_OK);
    EXPECT_EQ(condition, 12);
    EXPECT_STREQ(text, "no server");
    vexFreeString(text);
    standin::protocolError(2, 53);
    EXPECT_EQ(vexGetLastProtocolError(session, &system, &code, &text), VEX_OK);
    EXPECT_EQ(code, 53);
    EXPECT_EQ(text, nullptr);
    const char* name = nullptr;
    EXPECT_EQ(vexGetVexCodeStr(14, &name), VEX_OK);
    EXPECT_STREQ(name, "wrong password");
    EXPECT_EQ(vexGetErrSystemStr(2, &name), VEX_OK);
    EXPECT_STREQ(name, "LDAP");
    standin::supported({"cn", "uid"});
    vexStringSet* set = nullptr;
    EXPECT_EQ(vexGetObjectSupportedAttributes(session, &set), VEX_OK);
    EXPECT_EQ(set->count, 2);
    EXPECT_STREQ(set->strings[1], "uid");
    EXPECT_THAT(standin::leaks(), ElementsAre("session1", "set1"));
    vexFreeStringSet(set);
    vexSessionClose(session);
    EXPECT_THAT(standin::leaks(), IsEmpty());
}

TEST_F(VexStandin, EncodesBerAsLiblberDoes) {
    alignas(16) char space[512] = {};  // more than an element needs
    auto* ber = reinterpret_cast<BerElement*>(space);
    berval cookie = {2, const_cast<char*>("ab")};
    berval value{};
    vex_ber_init2(ber, nullptr, LBER_USE_DER);
    EXPECT_GE(vex_ber_printf(ber, "{iO}", 5, &cookie), 0);
    EXPECT_EQ(vex_ber_flatten2(ber, &value, 1), 0);
    EXPECT_EQ(std::string(value.bv_val, value.bv_len), std::string("\x30\x07\x02\x01\x05\x04\x02"
                                                                   "ab"));
    vex_ber_memfree(value.bv_val);
    vex_ber_free_buf(ber);
}

TEST_F(VexStandin, ActsBeforeACallAndServesThreads) {
    int seen = 0;
    standin::onCall("vexSessionOpen", [&] { ++seen; });
    vexSessionClose(open());
    EXPECT_EQ(seen, 1);
    standin::onCall("vexSessionOpen", [] {});
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([this] {
            for (int i = 0; i < 200; ++i) vexSessionClose(open());
        });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(standin::calls().size(), 2u + 4 * 200 * 2);
    EXPECT_THAT(standin::leaks(), IsEmpty());
}

}  // namespace
