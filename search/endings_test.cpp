// SPDX-License-Identifier: Apache-2.0
// Every way that a search can end, and what the cache holds after it: a list only when
// the agent has said that it was whole.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "backend/base/settings.h"
#include "search/fixture_testing.h"
#include "search/search_testing.h"
#include "tests/standin/captured.h"
#include "vorn/thread.h"

#include "tests/standin/slapd_standin.h"

namespace {

using searchtest::Client;
using searchtest::cookieOf;
using searchtest::Paged;
using searchtest::person;
using searchtest::Request;

constexpr char kKey[] = "(uid=ann)dc=example,dc=com2";

struct World {
    Client& client;
    Request request;

    std::vector<standin::Sent> search() { return client.search(request); }
    std::vector<standin::Sent> page(int size, const std::string& cookie = "") {
        const Paged paged{size, cookie};
        Request one = request;
        one.paged = &paged;
        return client.search(one);
    }
};

enum class Kept { List, Nothing, EmptyList };

struct Ending {
    const char* name;
    int result;                                                 // the last one sent
    Kept kept;                                                  // as a list
    std::function<std::vector<standin::Sent>(World&)> happens;  // the search
    bool reports = true;                                        // dirgate.search.report.errors
};

void PrintTo(const Ending& ending, std::ostream* out) {
    *out << ending.name;
}

void find(std::vector<standin::Object> people, int end = VEX_END_OF_RESULTS) {
    standin::searchFinds({std::move(people), end, -1, 1});
}

std::vector<standin::Object> three() {
    return {person("ann"), person("bob"), person("cid")};
}

// A code in place of the object that the n-th reading would give.
void failAtReading(int n, int code) {
    for (int i = 1; i < n; ++i) standin::answer("vexLdapSearchNext", 0);
    standin::answer("vexLdapSearchNext", code);
}

std::vector<standin::Sent> searchThatFails(World& world, int reading, int code) {
    find(three());
    failAtReading(reading, code);
    return world.search();
}

// A first page of two, and the next one after something has happened.
std::vector<standin::Sent> secondPage(World& world, const std::function<void()>& between) {
    find(three());
    const std::string cookie = cookieOf(world.page(2).back());
    between();
    return world.page(2, cookie);
}

const Ending kEndings[] = {
    {"whole", 0, Kept::List,
     [](World& world) {
         find(three());
         return world.search();
     }},
    {"empty", 32, Kept::EmptyList,
     [](World& world) {
         find({});
         return world.search();
     }},
    {"sizeLimitJustReached", 0, Kept::List,
     [](World& world) {
         find(three());
         world.request.sizeLimit = 3;
         return world.search();
     }},
    {"sizeLimit", 4, Kept::Nothing,
     [](World& world) {
         find(three());
         world.request.sizeLimit = 2;
         return world.search();
     }},
    {"timeLimit", 32, Kept::Nothing,  // 3 comes first
     [](World& world) {
         find(three());
         world.request.timeLimit = 1;
         world.request.start = 1000;
         return world.search();
     }},
    {"abandonedAtOnce", 32, Kept::Nothing,
     [](World& world) {
         find(three());
         world.request.abandoned = true;
         return world.search();
     }},
    {"failedSend", 32, Kept::Nothing,
     [](World& world) {
         find(three());
         world.client.connection().entriesAnswer(LDAP_INSUFFICIENT_ACCESS);
         return world.search();
     }},
    {"noSession", 52, Kept::Nothing,
     [](World& world) {
         standin::answer("vexSessionOpen", VEX_BROKEN_SESSION);
         return world.search();
     }},
    {"agentGoneAtTheSearch", 52, Kept::Nothing,
     [](World& world) {
         standin::answer("vexLdapSearchOpen", VEX_BROKEN_SESSION);
         return world.search();
     }},
    {"badFilter", 80, Kept::Nothing,
     [](World& world) {
         standin::protocolError(VEX_ERR_AGENT, VEX_BAD_FILTER);
         standin::answer("vexLdapSearchOpen", VEX_BAD_FILTER);
         return world.search();
     }},
    {"noSuchBase", 32, Kept::Nothing,
     [](World& world) {
         standin::protocolError(VEX_ERR_LDAP, LDAP_NO_SUCH_OBJECT);
         standin::answer("vexLdapSearchOpen", VEX_NO_SUCH_OBJECT);
         return world.search();
     }},
    {"directoryTooBusy", 51, Kept::Nothing,
     [](World& world) {
         standin::protocolError(VEX_ERR_LDAP, LDAP_BUSY);
         return searchThatFails(world, 2, VEX_DIRECTORY_ERROR);
     }},
    {"directoryLimit", 11, Kept::Nothing,
     [](World& world) {
         standin::protocolError(VEX_ERR_LDAP, LDAP_ADMINLIMIT_EXCEEDED);
         return searchThatFails(world, 3, VEX_DIRECTORY_ERROR);
     }},
    {"directorySizeLimit", 4, Kept::Nothing,
     [](World& world) {
         standin::protocolError(VEX_ERR_LDAP, LDAP_SIZELIMIT_EXCEEDED);
         return searchThatFails(world, 4, VEX_DIRECTORY_ERROR);
     }},
    {"agentGoneBeforeTheFirstObject", 52, Kept::Nothing,
     [](World& world) { return searchThatFails(world, 1, VEX_BROKEN_SESSION); }},
    {"agentGoneMidway", 52, Kept::Nothing,
     [](World& world) { return searchThatFails(world, 2, VEX_BROKEN_SESSION); }},
    {"agentGoneAfterTheLastObject", 52, Kept::Nothing,
     [](World& world) { return searchThatFails(world, 4, VEX_BROKEN_SESSION); }},
    {"objectGone", 80, Kept::Nothing,
     [](World& world) {
         standin::answer("vexGetLastProtocolError", VEX_NO_SUCH_ATTRIBUTE);
         return searchThatFails(world, 2, VEX_OBJECT_GONE);
     }},
    {"agentGoneMidwayNotReported", 0, Kept::Nothing,
     [](World& world) { return searchThatFails(world, 2, VEX_BROKEN_SESSION); }, false},
    {"agentGoneAtOnceNotReported", 32, Kept::Nothing,
     [](World& world) { return searchThatFails(world, 1, VEX_BROKEN_SESSION); }, false},
    {"pagesReadToTheEnd", 32, Kept::List, [](World& world) { return secondPage(world, [] {}); }},
    {"halfReadPages", 0, Kept::Nothing,
     [](World& world) {
         find(three());
         return world.page(2);
     }},
    {"pagesGivenUpByTheClient", 0, Kept::Nothing,
     [](World& world) {
         find(three());
         const std::string cookie = cookieOf(world.page(2).back());
         return world.page(0, cookie);
     }},
    {"agentRestartedBetweenPages", 52, Kept::Nothing,
     [](World& world) {
         return secondPage(world, [] { standin::answer("vexLdapSearchNext", VEX_BROKEN_SESSION); });
     }},
    {"failedSendOnALaterPage", 50, Kept::Nothing,
     [](World& world) {
         return secondPage(world, [&] { world.client.connection().entriesAnswer(LDAP_INSUFFICIENT_ACCESS); });
     }},
    {"connectionClosedBetweenPages", 0, Kept::Nothing,
     [](World& world) {
         find(three());
         auto sent = world.page(2);
         back_vex_search_handle->delSearchHandle(1);
         return sent;
     }},
};

class EndingTest : public searchtest::Fixture, public testing::WithParamInterface<Ending> {
  protected:
    EndingTest() {
        vorn::Thread::SetThreadsActive(true);
        useCache();
        gSearchReportErrors = GetParam().reports;
    }
};

TEST_P(EndingTest, LeavesAListOnlyWhenItWasWhole) {
    const standin::CapturedStderr quiet;
    World world{m_client, {}};
    world.request.attributes = {"mail"};
    const auto sent = GetParam().happens(world);
    ASSERT_FALSE(sent.empty());
    EXPECT_EQ(sent.back().code, GetParam().result);

    std::shared_ptr<GuidList> list;
    const int found = SearchCacheManager::GetCacheManager()->getList(kKey, list);
    switch (GetParam().kept) {
        case Kept::List:
            ASSERT_EQ(found, SearchCacheManager::kHit);
            EXPECT_THAT(*list, testing::ElementsAre("guid-ann", "guid-bob", "guid-cid"));
            break;
        case Kept::EmptyList:
            EXPECT_EQ(found, SearchCacheManager::kNegativeHit);
            break;
        case Kept::Nothing:
            EXPECT_NE(found, SearchCacheManager::kHit);
            EXPECT_NE(found, SearchCacheManager::kNegativeHit);
            break;
    }
}

INSTANTIATE_TEST_SUITE_P(OfASearch, EndingTest, testing::ValuesIn(kEndings),
                         [](const auto& one) { return std::string(one.param.name); });

}  // namespace
