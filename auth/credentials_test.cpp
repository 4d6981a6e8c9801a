#include "auth/credentials.h"

#include <gmock/gmock.h>
#include <malloc.h>

#include "auth/lutil_faults.h"
#include "backend/settings.h"
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
        EXPECT_EQ(HashPassword(Shredder(password), Shredder(salt)).text(), hash) << password << salt;
}

TEST_F(Credentials, AFailedHashIsReportedAndEmpty) {
    lutilFaults().hashFails = true;
    standin::CapturedStderr captured;
    EXPECT_EQ(HashPassword(Shredder("secret"), Shredder("salt")).text(), "");
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

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // which keep books of their own
// The price of the rule above: as many numbers as there were binds, whatever closes.
TEST_F(Credentials, EachFurtherBindOfAConnectionCostsItsNumberForGood) {
    const auto inUse = [] {
        const struct mallinfo2 info = mallinfo2();
        return info.uordblks + info.hblkhd;
    };
    creds.addCreds(7, kDn, "secret");
    const std::size_t before = inUse();
    constexpr std::size_t kBinds = 65536;  // a power of two: the array has no room to spare
    for (std::size_t i = 1; i < kBinds; ++i) creds.addConnID(7, kDn);
    creds.delCreds(7);
    const std::size_t grown = inUse() - before;
    constexpr std::size_t kNumbers = kBinds * sizeof(unsigned long), kPages = 8192;
    EXPECT_GE(grown + kPages, kNumbers);
    EXPECT_LE(grown, kNumbers + kPages);
}
#endif

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

TEST_F(Credentials, ShreddersHoldMoveAndForget) {
    for (const char* text : {"", "short", "longer than any short-string buffer is"}) {
        Shredder first{std::string_view(text)};
        Shredder second(std::move(first));
        EXPECT_EQ(second.text(), text);
        EXPECT_EQ(first.text(), "");  // NOLINT: what moving leaves is the point
        Shredder third("something else");
        third = std::move(second);
        EXPECT_EQ(third.text(), text);
        EXPECT_EQ(second.text(), "");  // NOLINT
    }
}

}  // namespace
