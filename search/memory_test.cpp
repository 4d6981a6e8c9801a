// SPDX-License-Identifier: Apache-2.0
// Searches whose memory runs out: at the first allocation, at the second, and so on to
// the last. Each ends in order, gives back what it holds, and tells the cache nothing
// that the next search would believe.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "backend/base/settings.h"
#include "search/fixture_testing.h"
#include "search/search_testing.h"
#include "tests/standin/scarce_memory.h"
#include "vorn/thread.h"

#include "tests/standin/slapd_standin.h"

namespace {

// The allocation of the next search that fails, counted from 1; 0 for none.
std::size_t failing = 0;
bool ranOut = false;
std::optional<standin::ScarceMemory> scarce;

void onHook(bool runs) {
    if (runs && failing > 0) {
        scarce.emplace(failing);
    } else if (scarce) {
        ranOut = scarce->ranOut();
        scarce.reset();
    }
}

using searchtest::cookieOf;
using searchtest::Paged;
using searchtest::person;
using searchtest::Request;

// A process's worth of state, for one attempt.
class Attempt : public searchtest::Fixture {
  public:
    Attempt() {
        searchtest::onHook = onHook;
        vorn::Thread::SetThreadsActive(true);
        standin::searchFor({}, {{person("ann"), person("bob"), person("cyd")}});
        for (const char* name : {"ann", "bob", "cyd"}) {
            standin::lookup("guid-" + std::string(name), person(name));
            standin::fetch("CN=" + std::string(name) + ",DC=example,DC=com", person(name));
        }
    }
    void TestBody() override {}

    using Fixture::useCache;
    using Fixture::useMap;

    // What a client is sent, as one text.
    std::string search(const Request& request) {
        m_last = m_client.search(request);
        std::string text;
        for (const auto& one : m_last)
            text += (one.isEntry ? one.text : std::to_string(one.code) + " " + one.text) + "\n";
        return text;
    }
    std::string cookie() const { return cookieOf(m_last.back()); }

  private:
    std::vector<standin::Sent> m_last;
};

struct Case {
    const char* name;
    // What comes before, with all the memory; then the search that is watched.
    std::function<void(Attempt&)> before;
    Request request;
    bool pages = false;      // of two entries
    bool laterPage = false;  // the second one
};
void PrintTo(const Case& one, std::ostream* out) {
    *out << one.name;
}

class MemoryTest : public testing::TestWithParam<Case> {
  protected:
    ~MemoryTest() override { failing = 0, searchtest::onHook = nullptr; }

    // The watched search's answer when the allocation of that number fails; 0 for none.
    static std::string answer(Attempt& attempt, std::size_t number) {
        const Case& one = GetParam();
        Request request = one.request;
        Paged paged{2, ""};
        if (one.pages) request.paged = &paged;
        if (one.laterPage) {
            attempt.search(request);
            paged.cookie = attempt.cookie();
        }
        failing = number, ranOut = false;
        std::string text = attempt.search(request);
        failing = 0;
        return text;
    }
    // A fresh attempt's usual answer, and the same search's afterwards.
    static std::string usual() {
        Attempt attempt;
        GetParam().before(attempt);
        return answer(attempt, 0);
    }
};

TEST_P(MemoryTest, ASearchThatRunsOutOfItEndsInOrder) {
    const std::string whole = usual();
    std::size_t number = 1;
    for (bool more = true; more; ++number) {
        ASSERT_LT(number, 5000u);
        Attempt attempt;
        GetParam().before(attempt);
        const std::string told = answer(attempt, number);
        more = ranOut;
        if (told != whole) {
            EXPECT_TRUE(ranOut);
            EXPECT_TRUE(told.ends_with("80 std::bad_alloc\n")) << number << ": " << told;
        }
        if (GetParam().laterPage) continue;  // its page is the connection's only once
        EXPECT_EQ(answer(attempt, 0), whole) << "after " << number;
    }
    EXPECT_GT(number, 2u);
}

void nothing(Attempt& /*attempt*/) {}
void mapped(Attempt& attempt) {
    attempt.useMap(
        "posixAccount = User\nposixAccount.uid = sAMAccountName\nposixAccount.cn = sAMAccountName\n");
}
void cached(Attempt& attempt) {
    attempt.useCache();
}
void filled(Attempt& attempt) {
    attempt.useCache();
    Request request;
    request.attributes = {"mail"};
    attempt.search(request);
}
void fetchingByUid(Attempt& attempt) {
    mapped(attempt);
    gFetchByDnUID = true;
}

Request asking(const char* attribute, const char* value, const char* base = "dc=example,dc=com",
               int scope = 2) {
    Request request;
    request.attribute = attribute;
    request.value = value;
    request.base = base;
    request.scope = scope;
    request.attributes = {"mail"};
    return request;
}

INSTANTIATE_TEST_SUITE_P(
    Searches, MemoryTest,
    testing::Values(Case{"plain", nothing, asking("uid", "ann")},
                    Case{"mapped", mapped, asking("objectClass", "posixAccount")},
                    Case{"suffix", nothing, asking("uid", "ann", "dc=example,dc=com", 0)},
                    Case{"forest", nothing, asking("uid", "ann", "cn=$,dc=example,dc=com")},
                    Case{"uid", fetchingByUid,
                         asking("objectClass", nullptr, "uid=ann,dc=example,dc=com", 0)},
                    Case{"cached", cached, asking("uid", "ann")},
                    Case{"replayed", filled, asking("uid", "ann")},
                    Case{"page", nothing, asking("uid", "ann"), true},
                    Case{"cachedPage", cached, asking("uid", "ann"), true},
                    Case{"laterPage", nothing, asking("uid", "ann"), true, true},
                    Case{"laterReplayedPage", filled, asking("uid", "ann"), true, true}),
    [](const auto& one) { return std::string(one.param.name); });

}  // namespace
