// SPDX-License-Identifier: Apache-2.0
// After a bind, no byte of a password is left in the process's writable memory;
// after the cache is cleared, none of a salt or a hash either.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "auth/credentials.h"
#include "auth/lutil_faults_testing.h"
#include "backend/base/settings.h"
#include "tests/standin/vex_standin.h"
#include "vorn/memory_scan_testing.h"

#include "auth/bind.h"
#include "tests/standin/slapd_standin.h"

namespace {

using vorn::test::Disguised;
using vorn::test::MemoryScan;

constexpr const char* kDn = "CN=ann,DC=x";

class Memory : public testing::Test {
  protected:
    void SetUp() override {
        standin::reset();
        standin::showPasswords(false);
        lutilFaults() = {};
        back_vex_creds = new CredManager;
    }
    void TearDown() override {
        delete back_vex_creds;
        back_vex_creds = nullptr;
        vexFreeStringSet(gSupportedObjectAttrList.exchange(nullptr));
        standin::reset();
    }

    // One bind with the password, which this function leaves nowhere.
    static int bind(const Disguised& password, MemoryScan* during = nullptr) {
        standin::FakeConnection client(7);
        standin::FakeOperation operation(client);
        std::vector<char> text(password.size() + 1);
        password.reveal(text.data());
        operation.bind(kDn, text.data());
        explicit_bzero(text.data(), text.size());
        const int result = vex_back_bind(operation.op(), operation.reply());
        if (during != nullptr) {
            EXPECT_EQ(during->count(password), 1) << "the request's own";
        }
        return result;
    }

    MemoryScan scan;
};

// Short ones live in a string's own buffer, long ones on the heap; those of more
// than 64 bytes pass through the hash in blocks.
TEST_F(Memory, NoPasswordIsLeftAfterABind) {
    for (std::size_t size : {12u, 15u, 16u, 48u, 120u}) {
        const Disguised password(size);
        standin::acceptEveryone(true);
        EXPECT_EQ(bind(password, &scan), 0) << size;
        EXPECT_EQ(scan.count(password), 0) << "validated by the agent, " << size;
        EXPECT_EQ(bind(password), 0);
        EXPECT_EQ(scan.count(password), 0) << "answered from the cache, " << size;
        standin::acceptEveryone(false);
        const Disguised wrong(size);
        EXPECT_EQ(bind(wrong), 49);
        EXPECT_EQ(scan.count(wrong), 0) << "refused, " << size;
    }
}

TEST_F(Memory, NoPasswordIsLeftWhenHashingOrSaltFails) {
    standin::acceptEveryone(true);
    const Disguised password(24);
    lutilFaults().hashFails = true;
    EXPECT_EQ(bind(password), 0);
    EXPECT_EQ(scan.count(password), 0);
    lutilFaults().hashFails = false;
    lutilFaults().entropyFails = true;
    EXPECT_EQ(bind(password), 0);
    EXPECT_EQ(scan.count(password), 0);
}

// The salt is known here, so the hash is too.
TEST_F(Memory, NoSaltAndNoHashIsLeftOnceTheCredentialIsGone) {
    standin::acceptEveryone(true);
    const Disguised password(24);
    const Disguised salt(16);
    std::unique_ptr<Disguised> hash;
    {
        char secret[25] = {}, bytes[17] = {};
        password.reveal(secret);
        salt.reveal(bytes);
        hash = std::make_unique<Disguised>(Disguised(HashPassword(secret, vorn::Secret(bytes)).text()));
        lutilFaults().entropy.assign(bytes, 16);
        explicit_bzero(secret, sizeof secret);
        explicit_bzero(bytes, sizeof bytes);
    }
    EXPECT_EQ(scan.count(*hash), 0);
    EXPECT_EQ(bind(password), 0);
    EXPECT_EQ(bind(password), 0);
    vorn::wipe(lutilFaults().entropy);
    EXPECT_EQ(scan.count(*hash), 1) << "the record's own";
    EXPECT_EQ(scan.count(salt), 1) << "the record's own";
    back_vex_creds->addCreds(7, kDn, "another");
    EXPECT_EQ(scan.count(*hash), 0) << "replaced";
    EXPECT_EQ(scan.count(salt), 0) << "replaced";
}

TEST_F(Memory, ClearingLeavesNoHash) {
    lutilFaults().entropy = "0123456789abcdef";
    const Disguised hash(HashPassword("secret", vorn::Secret("0123456789abcdef")).text());
    back_vex_creds->addCreds(7, kDn, "secret");
    EXPECT_EQ(scan.count(hash), 1);
    back_vex_creds->clearCreds();
    EXPECT_EQ(scan.count(hash), 0);
    back_vex_creds->addCreds(7, kDn, "secret");
    EXPECT_EQ(scan.count(hash), 1);
    back_vex_creds->delCreds(7);
    EXPECT_EQ(scan.count(hash), 0);
}

}  // namespace
