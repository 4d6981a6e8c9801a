// SPDX-License-Identifier: Apache-2.0
// Entries kept with cached objects: what is sent is the same with and without them.

#include "search/kept_entries.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "backend/base/settings.h"
#include "search/entries.h"
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

constexpr char kMap[] =
    "posixAccount = Person\n"
    "posixAccount.CN = displayName\n"
    "posixAccount.uid = sAMAccountName\n"
    "posixAccount.mail = mail\n";

standin::Object colleague(const std::string& name) {
    standin::Object object = person(name);
    object.push_back({"displayName", {"The " + name}});
    object.push_back({"mail", {name + "@example.com"}});
    return object;
}

class KeptEntriesTest : public searchtest::Fixture {
  protected:
    KeptEntriesTest() {
        vorn::Thread::SetThreadsActive(true);
        useMap(kMap);
        useCache({"cn", "displayName", "mail", "objectClass", "sAMAccountName", "uid"});
    }
    ~KeptEntriesTest() override { gCacheMaxObjects = 3000; }

    // What the client is sent, and how many entries were made for it.
    struct Answer {
        std::vector<standin::Sent> sent;
        long made = 0;
    };
    Answer search(Request request = {}) {
        if (request.attributes.empty()) request.attributes = {"uid", "mail"};
        standin::forgetCalls();
        Answer answer{m_client.search(request)};
        const auto calls = standin::calls();
        // Each conversion asks for the first attribute once.
        answer.made = std::count_if(calls.begin(), calls.end(), [](const std::string& call) {
            return call.starts_with("vexGetFirstAttribute");
        });
        return answer;
    }
    static std::string text(const std::vector<standin::Sent>& sent) {
        std::string all;
        for (const auto& one : sent) {
            all += one.isEntry ? "entry\n" + one.text : "result " + std::to_string(one.code) + "\n";
            for (const auto& name : one.attributes) all += "wants " + name + "\n";
            for (const auto& control : one.controls) all += "control " + control.oid + "\n";
            all += "flags " + std::to_string(one.flags) + " of " + std::to_string(one.entries) + "\n";
        }
        return all;
    }
};

TEST_F(KeptEntriesTest, TheSecondReplayMakesNoEntry) {
    standin::search({colleague("ann"), colleague("bob")});
    EXPECT_EQ(search().made, 2) << "from the agent";
    const Answer first = search();
    EXPECT_EQ(first.made, 2) << "from the cache for the first time";
    const Answer second = search();
    EXPECT_EQ(second.made, 0);
    EXPECT_EQ(text(second.sent), text(first.sent));
    EXPECT_EQ(second.sent.size(), 3U);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // which keep books of their own
TEST_F(KeptEntriesTest, TheirBytesAreCounted) {
    SearchCacheManager cache;
    cache.init(true, 100, 3000, 3600, 300, 0, 1.3F);
    const auto counted = [&] {
        const std::string state = cache.getStateInfo();
        return std::stoul(state.substr(state.find(": ") + 2));
    };
    constexpr std::size_t kCount = 500;
    std::vector<std::string> guids;
    for (std::size_t i = 0; i < kCount; ++i) {
        guids.push_back("guid" + std::to_string(i));
        const vex::UniqueObject object(standin::makeObject(colleague(guids[i])));
        cache.putObj(guids[i].c_str(), object.get());
    }
    std::vector<FoundObject> found(kCount);
    std::vector<SharedEntry> entries;
    for (std::size_t i = 0; i < kCount; ++i) {
        CachedObject cached;
        ASSERT_EQ(cache.getObj(guids[i], &cached), SearchCacheManager::kHit);
        found[i] = {std::move(cached.object), &guids[i], cached.serial, nullptr};
        entries.push_back(
            EntryMaker::parse("dn: cn=" + guids[i] + ",dc=x\nmail: " + std::string(i, 'm') + "\n"));
    }
    const auto keep = [&](std::size_t i) {
        const LdifRequest inputs{
            "anObjectClassOfALongName", true, {"mail", "anAttributeOfALongName", "uid"}, false};
        KeptEntries(&cache, inputs).keep(found[i], entries[i].get());
    };
    const std::size_t before = mallinfo2().uordblks, countedBefore = counted();
    for (std::size_t i = 0; i < kCount; ++i) keep(i);
    const auto grown = static_cast<double>(mallinfo2().uordblks - before);
    EXPECT_GT(grown, kCount * 300.0);
    EXPECT_NEAR(static_cast<double>(counted() - countedBefore), grown, grown / 20);
}
#endif

// Every query, first with each entry made anew, then with those of the query before
// it, which may differ in any input, then with its own.
TEST_F(KeptEntriesTest, EachQueryIsAnsweredAlikeWithAndWithoutThem) {
    const std::vector<std::string> people = {"ann", "bob", "cid"};
    std::vector<standin::Object> objects;
    for (const auto& name : people) objects.push_back(colleague(name));

    std::vector<Request> queries;
    const Paged page{2, ""};
    for (const char* type : {"", "posixAccount", "shadowAccount"}) {
        for (const std::vector<std::string>& names :
             {std::vector<std::string>{"uid"}, {"mail"}, {"cn", "uid"}, {"CN"}, {"objectClass", "mail"}}) {
            for (const int scope : {LDAP_SCOPE_SUBTREE, LDAP_SCOPE_ONELEVEL, LDAP_SCOPE_BASE}) {
                Request query;
                query.attribute = *type == '\0' ? "uid" : "objectClass";
                query.value = *type == '\0' ? "ann" : type;
                query.attributes = names;
                query.scope = scope;
                if (scope == LDAP_SCOPE_BASE) query.base = "cn=ann,dc=example,dc=com";
                queries.push_back(query);
                query.paged = &page;
                queries.push_back(query);
                query.paged = nullptr;
                query.sizeLimit = 1;
                queries.push_back(query);
            }
        }
    }
    standin::searchFor({}, {objects});

    long kept = 0;
    for (int round = 0; round < 2; ++round) {
        for (const Request& query : queries) {
            std::string anew;
            {
                const standin::CapturedLog log;  // its lines are wanted, so nothing is taken
                anew = text(search(query).sent);
            }
            EXPECT_EQ(text(search(query).sent), anew);
            const Answer again = search(query);
            EXPECT_EQ(text(again.sent), anew);
            if (again.made == 0) ++kept;
        }
    }
    EXPECT_GT(kept, static_cast<long>(queries.size())) << "most were answered from what was kept";
}

TEST_F(KeptEntriesTest, OneIsKeptForEachObjectTheNewest) {
    standin::search({colleague("ann")});
    Request mail;
    mail.attributes = {"mail"};
    Request uid;
    uid.attributes = {"uid"};
    search(mail);
    EXPECT_EQ(search(mail).made, 1);
    EXPECT_EQ(search(uid).made, 1);
    EXPECT_EQ(search(uid).made, 0);
    EXPECT_EQ(search(mail).made, 1);
}

TEST_F(KeptEntriesTest, WhereTheLogsLinesAreWantedEachIsMadeAnew) {
    standin::search({colleague("ann")});
    search();
    search();
    EXPECT_EQ(search().made, 0);
    const standin::CapturedLog log;
    EXPECT_EQ(search().made, 1);
    EXPECT_EQ(log.count("After translation: out_ldif = "), 1);
}

TEST_F(KeptEntriesTest, AnErrorThatIsLoggedIsLoggedEachTime) {
    Request request;
    request.attribute = "objectClass";
    request.value = "posixAccount";
    standin::Object nameless = colleague("ann");
    std::erase_if(nameless, [](const auto& attribute) { return attribute.name == "displayName"; });
    standin::search({nameless});
    for (int time = 0; time < 3; ++time) {
        const standin::CapturedStderr errors;
        EXPECT_EQ(search(request).made, 1);
        EXPECT_THAT(errors.text(), testing::HasSubstr("Failed to retrieve displayName from object: "));
    }
    EXPECT_EQ(standin::liveEntries(), 0);
}

TEST_F(KeptEntriesTest, AnObjectThatMakesNoEntryIsTriedEachTime) {
    standin::rejectEntriesWith("ann@");
    standin::search({colleague("ann"), colleague("bob")});
    for (int time = 0; time < 2; ++time) EXPECT_EQ(search().made, 2);
    const Answer third = search();
    EXPECT_EQ(third.made, 1);
    EXPECT_EQ(third.sent.size(), 2U);
}

// What was kept with the object before is not of the next, which is not cached.
TEST_F(KeptEntriesTest, AnObjectThatIsLookedUpHasItsOwnEntry) {
    standin::search({colleague("ann")});
    for (int time = 0; time < 2; ++time) search();
    SearchCacheManager::GetCacheManager()->putList(
        "(uid=both)dc=example,dc=com2", std::make_shared<GuidList>(GuidList{"guid-ann", "guid-bob"}));
    standin::lookup("guid-bob", colleague("bob"));
    Request request;
    request.value = "both";
    const Answer answer = search(request);
    ASSERT_EQ(answer.sent.size(), 3U);
    EXPECT_THAT(answer.sent[1].text, testing::HasSubstr("bob@example.com"));
}

TEST_F(KeptEntriesTest, ASearchForDnsInTheForestKeepsNone) {
    standin::searchFor({}, {{colleague("ann")}});
    standin::fetch("CN=ann,DC=example,DC=com", colleague("ann"));
    Request request;
    request.base = "cn=$,dc=example,dc=com";
    for (int time = 0; time < 3; ++time)
        EXPECT_EQ(search(request).made, 2) << "before the fetch and after it";
    EXPECT_EQ(standin::liveEntries(), 0);
}

TEST_F(KeptEntriesTest, AnEntryGoesWithItsObject) {
    gCacheMaxObjects = 1;
    standin::searchFor({}, {{colleague("ann")}});
    search();
    search();
    SearchCacheManager& cache = *SearchCacheManager::GetCacheManager();
    CachedObject cached;
    ASSERT_EQ(cache.getObj("guid-ann", &cached), SearchCacheManager::kHit);
    const std::weak_ptr<const void> kept = cached.attachment;
    cached = {};
    EXPECT_FALSE(kept.expired());
    cache.putObj("another", nullptr);
    EXPECT_TRUE(kept.expired());
}

// Two pages that wait for their next request hold the same entry.
TEST_F(KeptEntriesTest, TwoPagedSearchesMayWaitForTheSameEntry) {
    standin::search({colleague("ann"), colleague("bob")});
    search();
    search();
    Request request;
    Paged first{1, ""};
    request.paged = &first;
    searchtest::Client other{2};
    request.attributes = {"uid", "mail"};
    Paged next{1, cookieOf(m_client.search(request).at(1))};
    Paged otherNext{1, cookieOf(other.search(request).at(1))};
    EXPECT_EQ(standin::liveEntries(), 0) << "both wait with the one that is kept";

    request.paged = &next;
    EXPECT_THAT(m_client.search(request).at(0).text, testing::HasSubstr("bob@example.com"));
    request.paged = &otherNext;
    EXPECT_THAT(other.search(request).at(0).text, testing::HasSubstr("bob@example.com"));
}

TEST_F(KeptEntriesTest, SpecialClassesAreNotedBeforeTheEntryIsShared) {
    SearchCacheManager cache;
    cache.init(true, 10, 10, 60, 60, 0, 1.0F);
    vexObject* object = standin::makeObject(colleague("ann"));
    cache.putObj("guid", object);
    vexFreeObject(object);
    const std::string guid = "guid";
    CachedObject cached;
    ASSERT_EQ(cache.getObj(guid, &cached), SearchCacheManager::kHit);

    const LdifRequest inputs{"posixAccount", true, {"uid"}, false};
    const KeptEntries entries(&cache, inputs);
    const SharedEntry entry = EntryMaker::parse("dn: cn=ann\n");
    entries.keep({std::move(cached.object), &guid, cached.serial, nullptr}, entry.get());

    ASSERT_EQ(cache.getObj(guid, &cached), SearchCacheManager::kHit);
    const FoundObject found{nullptr, &guid, cached.serial, cached.attachment};
    const SharedEntry kept = entries.find(found);
    ASSERT_NE(kept, nullptr);
    EXPECT_NE(kept->e_ocflags & SLAP_OC__END, 0U);
    EXPECT_EQ(standin::entryText(kept.get()), standin::entryText(entry.get()));
    EXPECT_EQ(KeptEntries(nullptr, inputs).find(found), nullptr) << "without a cache";
    for (const LdifRequest& other :
         {LdifRequest{"shadowAccount", true, {"uid"}, false},
          LdifRequest{"posixAccount", false, {"uid"}, false},
          LdifRequest{"posixAccount", true, {"uid", "mail"}, false},
          LdifRequest{"posixAccount", true, {}, false}, LdifRequest{"posixAccount", true, {"uid"}, true}}) {
        EXPECT_EQ(KeptEntries(&cache, other).find(found), nullptr);
    }
}

}  // namespace
