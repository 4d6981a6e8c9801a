// SPDX-License-Identifier: Apache-2.0
#include "auth/credentials.h"

#include <gmock/gmock.h>
#include <malloc.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "auth/lutil_faults_testing.h"
#include "backend/base/settings.h"
#include "tests/standin/captured.h"

#include "tests/standin/slapd_standin.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kDn = "CN=ann,DC=x";
std::time_t theTime;

class Credentials : public testing::Test {
  protected:
    void SetUp() override {
        theTime = 1000;
        gCredExpire = 300;
        gCredMax = 10000;
        lutilFaults() = {};
        slap_debug = 0;
    }
    void TearDown() override { SetUp(); }

    // What a call says.
    template <class Body>
    static std::string said(Body&& body) {
        standin::CapturedStderr captured;
        slap_debug = 1;
        body();
        slap_debug = 0;
        return captured.text();
    }

    CredManager creds{[] { return theTime; }};
};

const std::string kSuccess =
    "vex bind : User 'CN=ann,DC=x' authenticated, validated against cached credential.\n";
const std::string kFailed = "vex bind : User 'CN=ann,DC=x' validated against cached credential failed\n";
const std::string kExpires = "vex bind : Cached credential(DN: CN=ann,DC=x) expires, skip this one\n";

TEST_F(Credentials, HashesPasswordThenSalt) {
    const struct {
        const char *password, *salt, *hash;
    } cases[] = {
        {"secret", "salt", "{SHA}gVK8WC9YyFT1gMsQHTGCgT3sSv4="},
        {"secret", "", "{SHA}5en6G6MezRroT3XKqkdPOmY/BfQ="},
        {"", "", "{SHA}2jmj7l5rSw0yVb/vlWAYkK/YBwk="},
    };
    for (const auto& [password, salt, hash] : cases)
        EXPECT_EQ(HashPassword(password, vorn::Secret(salt)).text(), hash) << password << salt;
}

TEST_F(Credentials, AFailedHashIsReportedAndEmpty) {
    lutilFaults().hashFails = true;
    standin::CapturedStderr captured;
    EXPECT_EQ(HashPassword("secret", vorn::Secret("salt")).text(), "");
    EXPECT_EQ(captured.text(), "dirgate ERROR: Password hash generation failed\n");
}

TEST_F(Credentials, AnUnknownDnIsNotVouchedForWithoutAWord) {
    EXPECT_EQ(said([&] { EXPECT_EQ(creds.doCacheAuth(kDn, "secret"), 0); }), "");
}

TEST_F(Credentials, TheRightPasswordGivesTheCreationTime) {
    EXPECT_EQ(said([&] { creds.addCreds(1, kDn, "secret"); }),
              "vex bind : Cache credential for 'CN=ann,DC=x' creation success\n");
    theTime += 10;
    EXPECT_EQ(said([&] { EXPECT_EQ(creds.doCacheAuth(kDn, "secret"), 1000); }), kSuccess);
}

TEST_F(Credentials, AWrongPasswordFailsAndLeavesTheRecord) {
    creds.addCreds(1, kDn, "secret");
    for (const char* wrong : {"Secret", "secre", "secrets", ""})
        EXPECT_EQ(said([&] { EXPECT_EQ(creds.doCacheAuth(kDn, wrong), 0); }), kFailed) << wrong;
    EXPECT_EQ(creds.doCacheAuth(kDn, "secret"), 1000);
}

TEST_F(Credentials, ExpiresWhenItsLifetimeIsOver) {
    creds.addCreds(1, kDn, "secret");
    theTime = 1299;
    EXPECT_EQ(creds.doCacheAuth(kDn, "secret"), 1000);
    theTime = 1300;
    EXPECT_EQ(said([&] { EXPECT_EQ(creds.doCacheAuth(kDn, "secret"), 0); }), kExpires + kFailed);
    theTime = 9999;
    EXPECT_EQ(said([&] { EXPECT_EQ(creds.doCacheAuth(kDn, "wrong"), 0); }), kExpires + kFailed);
    creds.addCreds(1, kDn, "secret");
    EXPECT_EQ(creds.doCacheAuth(kDn, "secret"), 9999);
}

TEST_F(Credentials, ALifetimeOfNothingNeverVouches) {
    gCredExpire = 0;
    creds.addCreds(1, kDn, "secret");
    EXPECT_EQ(said([&] { EXPECT_EQ(creds.doCacheAuth(kDn, "secret"), 0); }), kExpires + kFailed);
}

TEST_F(Credentials, AnExpiredRecordCostsNoHash) {
    creds.addCreds(1, kDn, "secret");
    theTime = 1300;
    lutilFaults().record = true;
    creds.doCacheAuth(kDn, "secret");
    EXPECT_THAT(lutilFaults().hashed, IsEmpty());
}

TEST_F(Credentials, AnEmptyHashMatchesNothing) {
    lutilFaults().hashFails = true;
    EXPECT_EQ(said([&] { creds.addCreds(1, kDn, "secret"); }),
              "dirgate ERROR: Password hash generation failed\n"
              "vex bind : Cache credential for 'CN=ann,DC=x' creation success\n");
    EXPECT_EQ(said([&] { EXPECT_EQ(creds.doCacheAuth(kDn, "secret"), 0); }), kFailed);
    lutilFaults().hashFails = false;
    EXPECT_EQ(said([&] { EXPECT_EQ(creds.doCacheAuth(kDn, ""), 0); }), kFailed);
}

TEST_F(Credentials, AHashThatFailsAtTheCheckMatchesNothing) {
    creds.addCreds(1, kDn, "secret");
    lutilFaults().hashFails = true;
    EXPECT_EQ(said([&] { EXPECT_EQ(creds.doCacheAuth(kDn, "secret"), 0); }),
              "dirgate ERROR: Password hash generation failed\n" + kFailed);
}

TEST_F(Credentials, WithoutRandomnessNothingIsCached) {
    lutilFaults().entropyFails = true;
    EXPECT_EQ(said([&] { creds.addCreds(1, kDn, "secret"); }),
              "dirgate ERROR: vex bind : Salt generation failed\n");
    EXPECT_EQ(said([&] { EXPECT_EQ(creds.doCacheAuth(kDn, "secret"), 0); }), "");
}

TEST_F(Credentials, TheSaltEndsAtTheFirstZeroByte) {
    const struct {
        std::string bytes, salt;
    } cases[] = {
        {std::string("abc\0defghijklmno", 16), "abc"},
        {std::string("\0abcdefghijklmno", 16), ""},
        {"0123456789abcdef", "0123456789abcdef"},
        {"0123456789abcdefg", "0123456789abcdef"},
    };
    for (const auto& [bytes, salt] : cases) {
        lutilFaults() = {};
        lutilFaults().entropy = bytes;
        lutilFaults().record = true;
        creds.addCreds(1, kDn, "secret");
        EXPECT_EQ(creds.doCacheAuth(kDn, "secret"), 1000);
        EXPECT_THAT(lutilFaults().hashed, ElementsAre("secret" + salt, "secret" + salt));
    }
}

TEST_F(Credentials, SaltsDiffer) {
    lutilFaults().record = true;
    creds.addCreds(1, "CN=a", "secret");
    creds.addCreds(1, "CN=b", "secret");
    ASSERT_EQ(lutilFaults().hashed.size(), 2u);
    EXPECT_NE(lutilFaults().hashed[0], lutilFaults().hashed[1]);
}

TEST_F(Credentials, AnotherSpellingOfTheDnIsAnotherDn) {
    creds.addCreds(1, kDn, "secret");
    for (const char* other : {"cn=ann,DC=x", "CN=ann, DC=x", "CN=ann,DC=x ", ""})
        EXPECT_EQ(creds.doCacheAuth(other, "secret"), 0) << other;
}

TEST_F(Credentials, ANewPasswordReplacesTheOld) {
    creds.addCreds(1, kDn, "old");
    theTime = 1100;
    creds.addCreds(1, kDn, "new");
    EXPECT_EQ(creds.doCacheAuth(kDn, "old"), 0);
    EXPECT_EQ(creds.doCacheAuth(kDn, "new"), 1100);
}

TEST_F(Credentials, TheLastConnectionTakesTheCredentialWithIt) {
    creds.addCreds(1, kDn, "secret");
    creds.addCreds(2, kDn, "secret");
    creds.delCreds(1);
    EXPECT_EQ(creds.doCacheAuth(kDn, "secret"), 1000);
    creds.delCreds(2);
    EXPECT_EQ(said([&] { EXPECT_EQ(creds.doCacheAuth(kDn, "secret"), 0); }), "");
}

TEST_F(Credentials, AConnectionAnsweredFromTheCacheKeepsTheCredentialAlive) {
    creds.addCreds(1, kDn, "secret");
    creds.addConnID(2, kDn);
    creds.delCreds(1);
    EXPECT_EQ(creds.doCacheAuth(kDn, "secret"), 1000);
    creds.delCreds(2);
    EXPECT_EQ(creds.doCacheAuth(kDn, "secret"), 0);
}

TEST_F(Credentials, AConnectionThatBoundTwiceIsListedTwice) {
    creds.addCreds(1, kDn, "secret");
    creds.addConnID(1, kDn);
    creds.delCreds(1);
    EXPECT_EQ(creds.doCacheAuth(kDn, "secret"), 1000);
    creds.delCreds(1);  // it is not known any more
    EXPECT_EQ(creds.doCacheAuth(kDn, "secret"), 1000);
    creds.clearCreds();
    EXPECT_EQ(creds.doCacheAuth(kDn, "secret"), 0);
}

// A use that no closing can take back any more is not counted, but noted.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // which keep books of their own
TEST_F(Credentials, CostWhatConnectionsAndNamesCostHoweverOftenTheyBind) {
    const auto inUse = [] {
        const struct mallinfo2 info = mallinfo2();
        return info.uordblks + info.hblkhd;
    };
    constexpr std::size_t kPages = 8192;
    const std::string others[] = {kDn, "CN=bob,DC=x"};
    for (const std::string& dn : others) creds.addCreds(7, dn, "secret");
    const std::size_t before = inUse();
    for (int i = 0; i < 100'000; ++i) creds.addConnID(7, kDn);
    EXPECT_LE(inUse(), before + kPages) << "one connection, again and again";
    for (int i = 0; i < 100'000; ++i) creds.addConnID(7, others[i % 2]);
    EXPECT_LE(inUse(), before + kPages) << "in turn with somebody else";
    for (unsigned long connection = 8; connection < 100'000; ++connection) {
        for (const std::string& dn : others) creds.addConnID(connection, dn);
        creds.addConnID(connection, kDn);
        creds.addConnID(connection, kDn);
        creds.delCreds(connection);
    }
    EXPECT_LE(inUse(), before + kPages) << "connections that have closed";
    for (const std::string& dn : others) EXPECT_EQ(creds.doCacheAuth(dn.c_str(), "secret"), 1000);
}
#endif

// The rules at length: one element for each bind.
class ElementsOfBinds {
  public:
    void add(unsigned long connection, const std::string& dn, bool validated) {
        if (validated || m_lists.contains(dn)) m_lists[dn].push_back(connection);
        m_last[connection] = dn;
    }
    void close(unsigned long connection) {
        if (!m_last.contains(connection)) return;
        if (const auto list = m_lists.find(m_last[connection]); list != m_lists.end()) {
            auto& elements = list->second;
            const auto first = std::find(elements.begin(), elements.end(), connection);
            if (first != elements.end()) elements.erase(first);
            if (elements.empty()) m_lists.erase(list);
        }
        m_last.erase(connection);
    }
    bool has(const std::string& dn) const { return m_lists.contains(dn); }

  private:
    std::map<std::string, std::vector<unsigned long>> m_lists;
    std::map<unsigned long, std::string> m_last;
};

TEST_F(Credentials, LiveAndDieAsIfEachBindWereAnElementOfAList) {
    const std::string dns[] = {"CN=a", "CN=b", "CN=c"};
    for (unsigned seed = 0; seed < 200; ++seed) {
        creds.clearCreds();
        ElementsOfBinds model;
        std::mt19937 random(seed);
        for (int step = 0; step < 60; ++step) {
            const unsigned long connection = random() % 4 + 1;
            const std::string& dn = dns[random() % 3];
            const unsigned what = random() % 8;
            if (what >= 4) {
                creds.delCreds(connection);
                model.close(connection);
            } else {
                what == 0 ? creds.addCreds(connection, dn, "secret") : creds.addConnID(connection, dn);
                model.add(connection, dn, what == 0);
            }
            for (const std::string& one : dns)
                ASSERT_EQ(creds.doCacheAuth(one.c_str(), "secret") != 0, model.has(one))
                    << one << ", seed " << seed << ", step " << step;
        }
    }
}

TEST_F(Credentials, AnotherValidationGoesOnWithTheConnectionsThatAreListed) {
    creds.addCreds(1, kDn, "secret");
    creds.addCreds(2, kDn, "secret");
    creds.delCreds(2);  // the newer one first
    EXPECT_EQ(creds.doCacheAuth(kDn, "secret"), 1000);
    creds.delCreds(1);
    EXPECT_EQ(creds.doCacheAuth(kDn, "secret"), 0);
}

TEST_F(Credentials, AConnectionThatWasValidatedTwiceIsListedTwice) {
    creds.addCreds(1, kDn, "secret");
    creds.addCreds(1, kDn, "secret");
    creds.delCreds(1);
    EXPECT_EQ(creds.doCacheAuth(kDn, "secret"), 1000);
}

TEST_F(Credentials, WithoutRandomnessTheOldRecordStays) {
    creds.addCreds(1, kDn, "old");
    lutilFaults().entropyFails = true;
    creds.addCreds(2, kDn, "new");
    EXPECT_EQ(creds.doCacheAuth(kDn, "old"), 1000);
    EXPECT_EQ(creds.doCacheAuth(kDn, "new"), 0);
    creds.delCreds(2);
    EXPECT_EQ(creds.doCacheAuth(kDn, "old"), 1000) << "nor is the connection listed";
    creds.delCreds(1);
    EXPECT_EQ(creds.doCacheAuth(kDn, "old"), 0);
}

TEST_F(Credentials, TheOneLeastRecentlyUsedMakesRoom) {
    gCredMax = 3;
    const auto live = [&] {
        std::string names;
        for (const char* dn : {"a", "b", "c", "d", "e"})
            if (creds.doCacheAuth(dn, "secret") != 0) names += dn;
        return names;
    };
    unsigned long connection = 0;
    for (const char* dn : {"a", "b", "c"}) creds.addCreds(++connection, dn, "secret");
    EXPECT_EQ(live(), "abc");
    creds.addCreds(++connection, "d", "secret");
    EXPECT_EQ(live(), "bcd");
    creds.addConnID(++connection, "b");  // was answered from here: used
    creds.addCreds(++connection, "c", "secret");
    creds.doCacheAuth("d", "a guess");  // is no use
    creds.addCreds(++connection, "e", "secret");
    EXPECT_EQ(live(), "bce");
    creds.delCreds(connection);
    EXPECT_EQ(live(), "bc");
    creds.addCreds(++connection, "a", "secret");
    EXPECT_EQ(live(), "abc");
}

// As when a record went with its last connection and came again.
TEST_F(Credentials, AConnectionWhoseCredentialMadeRoomTakesNobodysNewOneAway) {
    gCredMax = 1;
    creds.addCreds(1, kDn, "secret");
    creds.addCreds(2, "CN=bob,DC=x", "other");
    creds.addCreds(3, kDn, "secret");
    creds.delCreds(1);
    EXPECT_EQ(creds.doCacheAuth(kDn, "secret"), 1000);
    creds.delCreds(3);
    EXPECT_EQ(creds.doCacheAuth(kDn, "secret"), 0);
    creds.delCreds(2);
}

TEST_F(Credentials, AConnectionBelongsToTheDnItBoundWithLast) {
    creds.addCreds(1, kDn, "secret");
    creds.addCreds(1, "CN=bob,DC=x", "other");
    creds.delCreds(1);
    EXPECT_EQ(creds.doCacheAuth("CN=bob,DC=x", "other"), 0);
    EXPECT_EQ(creds.doCacheAuth(kDn, "secret"), 1000);  // still listed there
}

TEST_F(Credentials, ADnThatIsNotCachedIsStillTheConnectionsLast) {
    creds.addCreds(1, kDn, "secret");
    creds.addConnID(1, "CN=unknown");
    creds.delCreds(1);
    EXPECT_EQ(creds.doCacheAuth(kDn, "secret"), 1000);
}

TEST_F(Credentials, AnEmptyDnChangesNothing) {
    creds.addCreds(1, kDn, "secret");
    creds.addConnID(1, "");
    creds.delCreds(1);
    EXPECT_EQ(creds.doCacheAuth(kDn, "secret"), 0);
}

// Its id was taken from a list that others have filled since: only itself goes.
TEST_F(Credentials, AConnectionThatIsNotListedTakesNobodyAway) {
    creds.addConnID(1, kDn);  // not cached: known by its DN, but listed nowhere
    creds.addCreds(2, kDn, "secret");
    creds.delCreds(1);
    EXPECT_EQ(creds.doCacheAuth(kDn, "secret"), 1000);
    creds.delCreds(2);
    EXPECT_EQ(creds.doCacheAuth(kDn, "secret"), 0);
}

TEST_F(Credentials, UnknownConnectionsAndAnEmptyCacheAreNoMatter) {
    EXPECT_EQ(said([&] {
                  creds.delCreds(9);
                  creds.clearCreds();
                  creds.addCreds(1, kDn, "secret");
                  creds.delCreds(9);
              }),
              "vex bind : Cache credential for 'CN=ann,DC=x' creation success\n");
    EXPECT_EQ(creds.doCacheAuth(kDn, "secret"), 1000);
}

TEST_F(Credentials, ClearingForgetsConnectionsToo) {
    creds.addCreds(1, kDn, "secret");
    creds.clearCreds();
    creds.addCreds(2, kDn, "secret");
    creds.delCreds(1);
    EXPECT_EQ(creds.doCacheAuth(kDn, "secret"), 1000);
}

TEST_F(Credentials, AfterClearingNewOnesMakeRoomInTheirOrder) {
    gCredMax = 2;
    creds.addCreds(1, "CN=old,DC=x", "secret");
    creds.clearCreds();
    for (const char* dn : {"a", "b", "c"}) creds.addCreds(2, dn, "secret");
    EXPECT_EQ(creds.doCacheAuth("a", "secret"), 0);
    EXPECT_EQ(creds.doCacheAuth("b", "secret"), 1000);
    EXPECT_EQ(creds.doCacheAuth("c", "secret"), 1000);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // which keep books of their own
TEST_F(Credentials, ClearingReleasesWhatConnectionsTake) {
    const std::size_t before = mallinfo2().uordblks;
    for (unsigned long connection = 1; connection <= 1000; ++connection) creds.addConnID(connection, kDn);
    EXPECT_GT(mallinfo2().uordblks, before + 10'000);
    creds.clearCreds();
    EXPECT_LE(mallinfo2().uordblks, before + 1000);
}
#endif

// Hashing takes longest: nobody waits for another's. What a thread's own lock would keep
// it from ends the process.
TEST_F(Credentials, WhileOneIsCheckedOthersAre) {
    creds.addCreds(1, kDn, "secret");
    creds.addCreds(2, "CN=bob,DC=x", "other");
    std::time_t bob = 0;
    lutilFaults().onHash = [&] { bob = creds.doCacheAuth("CN=bob,DC=x", "other"); };
    EXPECT_EQ(creds.doCacheAuth(kDn, "secret"), 1000);
    EXPECT_EQ(bob, 1000);
}

TEST_F(Credentials, WhileOneIsMadeOthersAreCheckedAndMade) {
    creds.addCreds(2, "CN=bob,DC=x", "other");
    std::time_t bob = 0;
    lutilFaults().onHash = [&] {
        bob = creds.doCacheAuth("CN=bob,DC=x", "other");
        creds.addCreds(3, "CN=cid,DC=x", "third");
    };
    creds.addCreds(1, kDn, "secret");
    EXPECT_EQ(bob, 1000);
    EXPECT_EQ(creds.doCacheAuth("CN=cid,DC=x", "third"), 1000);
}

}  // namespace
