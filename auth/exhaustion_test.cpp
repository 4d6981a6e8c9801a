// SPDX-License-Identifier: Apache-2.0
// Memory that runs out in the middle of a bind, at each allocation in turn: what was
// known is known, or what is new is, and nothing between.
#include <gmock/gmock.h>

#include <functional>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "auth/credentials.h"
#include "backend/base/settings.h"
#include "tests/standin/captured.h"
#include "tests/standin/scarce_memory.h"
#include "tests/standin/vex_standin.h"

#include "auth/bind.h"
#include "tests/standin/slapd_standin.h"

namespace {

using testing::IsEmpty;

// Longer than a string holds in itself.
const std::string kAnn = "CN=ann,OU=Staff,DC=example,DC=com", kBob = "CN=bob,OU=Staff,DC=example,DC=com",
                  kCid = "CN=cid,OU=Staff,DC=example,DC=com",
                  kDee = "CN=a longer name than the others have,OU=Staff,DC=example,DC=com";

// Whether it ran out of memory at the allocation of that number.
bool runsOutAt(std::size_t number, const std::function<void()>& work) {
    const standin::ScarceMemory scarce(number);
    try {
        work();
    } catch (const std::bad_alloc&) {  // the hook's matter
    }
    return scarce.ranOut();
}

// Ann is held by connections 1 and 2, Bob by 3, Dee by 5.
std::unique_ptr<CredManager> made() {
    auto creds = std::make_unique<CredManager>([] { return std::time_t{1000}; });
    creds->addCreds(1, kAnn, "old");
    creds->addConnID(2, kAnn);
    creds->addCreds(3, kBob, "old");
    creds->addCreds(5, kDee, "old");
    return creds;
}

// Which passwords are vouched for, now and as one connection after the other closes.
std::string stateOf(CredManager& creds) {
    std::string state;
    for (unsigned long connection = 0; connection <= 5; ++connection) {
        creds.delCreds(connection);
        for (const std::string& dn : {kAnn, kBob, kCid, kDee})
            for (const char* password : {"old", "new"})
                state += creds.doCacheAuth(dn.c_str(), password) != 0 ? '1' : '0';
        state += ' ';
    }
    return state;
}

TEST(Exhaustion, LeavesNoHalfOfACredential) {
    using Work = void (*)(CredManager&);
    const std::pair<const char*, Work> works[] = {
        {"a new person", [](CredManager& creds) { creds.addCreds(4, kCid, "new"); }},
        {"a known one", [](CredManager& creds) { creds.addCreds(4, kAnn, "new"); }},
        {"another on a known connection", [](CredManager& creds) { creds.addCreds(1, kBob, "new"); }},
        {"a new person on a known connection", [](CredManager& creds) { creds.addCreds(3, kCid, "new"); }},
        {"from the cache", [](CredManager& creds) { creds.addConnID(4, kAnn); }},
        {"from the cache, another", [](CredManager& creds) { creds.addConnID(3, kDee); }},
        {"nobody's", [](CredManager& creds) { creds.addConnID(4, kCid); }},
    };
    for (const auto& [name, work] : works) {
        const auto whole = made(), untouched = made();
        work(*whole);
        const std::string before = stateOf(*untouched), after = stateOf(*whole);
        std::size_t number = 1;
        for (;; ++number) {
            const auto creds = made();
            if (!runsOutAt(number, [&, step = work] { step(*creds); })) break;
            // A connection that has left its DN while there was no memory to count the
            // bind holds nothing: as a bind with a DN that is not cached.
            const std::string state = stateOf(*creds);
            EXPECT_TRUE(state == before || state == after)
                << name << ", allocation " << number << ": " << state << "\nbefore " << before << "\nafter  "
                << after;
            creds->clearCreds();
        }
        EXPECT_GT(number, 1U) << name;
    }
}

TEST(Exhaustion, ABindIsAnsweredAndTheNextOneSucceeds) {
    gLogInterval = 60;
    for (const bool known : {false, true}) {
        for (std::size_t number = 1;; ++number) {
            standin::reset();
            standin::resetSlapd();
            standin::user(kAnn, "secret");
            standin::supported({"cn", "anAttributeWithALongName"});
            back_vex_creds = new CredManager;
            standin::FakeConnection client(7);
            const auto bind = [&] {
                const standin::CapturedStderr captured;
                standin::FakeOperation operation(client);
                operation.bind(kAnn.c_str(), "secret");
                int result = -1;
                const bool failed =
                    runsOutAt(number, [&] { result = vex_back_bind(operation.op(), operation.reply()); });
                EXPECT_TRUE(result == 0 || (failed && result == LDAP_OTHER)) << result;
                EXPECT_EQ(client.sent().size(), result == 0 ? 0U : 1U);
                return failed;
            };
            if (known) {
                const std::size_t first = std::exchange(number, 0);
                EXPECT_FALSE(bind());
                number = first;
            }
            const bool failed = bind();
            standin::FakeConnection other(8);
            standin::FakeOperation again(other);
            again.bind(kAnn.c_str(), "secret");
            EXPECT_EQ(vex_back_bind(again.op(), again.reply()), 0);
            for (const unsigned long connection : {7UL, 8UL}) back_vex_creds->delCreds(connection);
            delete std::exchange(back_vex_creds, nullptr);
            vexFreeStringSet(gSupportedObjectAttrList.exchange(nullptr));
            EXPECT_THAT(standin::leaks(), IsEmpty()) << number;
            EXPECT_THAT(standin::failures(), IsEmpty()) << number;
            if (!failed) break;
        }
    }
    gLogInterval = 0;
}

}  // namespace
