// SPDX-License-Identifier: Apache-2.0
// People who change their own passwords in the embedded directory.
#include <gmock/gmock.h>
#include <ldap.h>

#include <thread>

#include "agent/directory/passwords.h"
#include "agent/embedded/directory_testing.h"
#include "agent/embedded/password_store.h"

namespace vexagent {
namespace {

constexpr char kAnn[] = "ann@example.com";

std::string people() {
    const std::string secret = "userPassword: {CRYPT}" + newHash("old") + "\n";
    return units() + person("Ann Lee", "ann", 1001, secret + "userPassword: " + newHash("older") + "\n") +
           person("Ben", "ben", 1002, secret + "userAccountControl: 514\n") + person("Cleo", "cleo", 1003);
}

class PasswordChange : public ::testing::Test {
  protected:
    Result change(const std::string& user, const std::string& from, const std::string& to) {
        return m_directory->changePassword(user, from, to);
    }
    int login(const std::string& user, const std::string& password) {
        return m_directory->authenticate(user, password).code();
    }
    std::string stored(const char* attribute) {
        const LdbContext ldb = openLdb(m_directory.database(), Access::Read);
        const Pool pool = newPool();
        ldb_dn* dn = ldb_dn_new(pool.get(), ldb.get(), "CN=Ann Lee,OU=People,DC=example,DC=com");
        ldb_result* found = nullptr;
        EXPECT_EQ(ldb_search(ldb.get(), pool.get(), &found, dn, LDB_SCOPE_BASE, nullptr, nullptr), 0);
        const ldb_message_element* element = ldb_msg_find_element(found->msgs[0], attribute);
        return element == nullptr || element->num_values != 1 ? "" : std::string(bytesOf(element->values[0]));
    }

    TestDirectory m_directory{people(), true};
};

TEST_F(PasswordChange, MakesTheNewOneTheOnlyOne) {
    EXPECT_EQ(change(kAnn, "old", "n3w").code, VEX_OK);
    EXPECT_EQ(login(kAnn, "n3w"), VEX_OK);
    EXPECT_EQ(login(kAnn, "old"), VEX_WRONG_PASSWORD);
    EXPECT_EQ(login(kAnn, "older"), VEX_WRONG_PASSWORD);
    EXPECT_EQ(change("cn=ann,OU=People,DC=example,DC=com", "n3w", "newer").code, VEX_OK);
    EXPECT_EQ(login(kAnn, "newer"), VEX_OK);
}

TEST_F(PasswordChange, StoresAHashAndTheTime) {
    ASSERT_EQ(change(kAnn, "old", "n3w").code, VEX_OK);
    EXPECT_THAT(stored("userPassword"), ::testing::StartsWith("{CRYPT}$y$"));
    EXPECT_EQ(stored("pwdLastSet"), "133444736000000000");  // 1,700,000,000 in units of 100 ns since 1601
}

TEST_F(PasswordChange, NeedsTheOldOne) {
    EXPECT_EQ(change(kAnn, "wrong", "n3w").code, VEX_WRONG_PASSWORD);
    EXPECT_EQ(change(kAnn, "wrong", "n3w").errCode, LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(change(kAnn, "", "n3w").code, VEX_WRONG_PASSWORD);
    EXPECT_EQ(change("cleo@example.com", "", "n3w").code, VEX_WRONG_PASSWORD);
    EXPECT_EQ(change("cleo@example.com", "old", "n3w").code, VEX_WRONG_PASSWORD);
    EXPECT_EQ(change("nobody@example.com", "old", "n3w").code, VEX_NO_SUCH_USER);
    EXPECT_EQ(change("", "old", "n3w").code, VEX_NO_SUCH_USER);
    EXPECT_EQ(change("ben@example.com", "old", "n3w").code, VEX_ACCOUNT_REFUSED);
    EXPECT_EQ(login(kAnn, "old"), VEX_OK);
    EXPECT_EQ(login(kAnn, "n3w"), VEX_WRONG_PASSWORD);
}

TEST_F(PasswordChange, RefusesANewOneThatIsNone) {
    for (const std::string& bad : {std::string(), std::string("old"), std::string("a\0b", 3)}) {
        const Result refused = change(kAnn, "old", bad);
        EXPECT_EQ(refused.code, VEX_REFUSED) << bad;
        EXPECT_EQ(refused.errSystem, VEX_ERR_LDAP);
        EXPECT_EQ(refused.errCode, LDAP_CONSTRAINT_VIOLATION);
    }
    EXPECT_EQ(login(kAnn, "old"), VEX_OK);
}

TEST_F(PasswordChange, IsNotPossibleUnlessItIsAllowed) {
    TestDirectory closed(people());
    const Result refused = closed->changePassword(kAnn, "old", "n3w");
    EXPECT_EQ(refused.code, VEX_NOT_SUPPORTED);
    EXPECT_EQ(refused.errCode, LDAP_UNWILLING_TO_PERFORM);
    EXPECT_TRUE(closed->authenticate(kAnn, "old").accepted());
}

// Somebody else was faster: what was checked is not what would be replaced.
TEST_F(PasswordChange, DoesNotReplaceWhatWasNotChecked) {
    const LdbContext ldb = openLdb(m_directory.database(), Access::Read);
    const Pool pool = newPool();
    Handle handle(openLdb(m_directory.database(), Access::Read));
    const ldb_message* ann =
        handle.read(pool.get(), ldb_dn_new(pool.get(), ldb.get(), "CN=Ann Lee,OU=People,DC=example,DC=com"));
    ASSERT_NE(ann, nullptr);
    ASSERT_EQ(change(kAnn, "old", "n3w").code, VEX_OK);
    const Result late = storePassword(m_directory.database(), ann, newHash("late"), testNow);
    EXPECT_EQ(late.code, VEX_DIRECTORY_ERROR);
    EXPECT_EQ(late.errCode, LDAP_BUSY);
    EXPECT_EQ(login(kAnn, "n3w"), VEX_OK);
}

TEST_F(PasswordChange, OfManyAtOnceOneIsDone) {
    constexpr int kThreads = 4;
    std::atomic<int> done = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i)
        threads.emplace_back([&, i] { done += change(kAnn, "old", "new" + std::to_string(i)).ok(); });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(done, 1);
    EXPECT_EQ(login(kAnn, "old"), VEX_WRONG_PASSWORD);
}

TEST_F(PasswordChange, ThatCannotBeWrittenIsAFailureAndTellsTheClientNoPath) {
    const LdbContext ldb = openLdb(m_directory.database(), Access::Read);
    const Pool pool = newPool();
    Handle handle(openLdb(m_directory.database(), Access::Read));
    const ldb_message* ann =
        handle.read(pool.get(), ldb_dn_new(pool.get(), ldb.get(), "CN=Ann Lee,OU=People,DC=example,DC=com"));
    const Result failed = storePassword(m_directory.folder().file("missing.ldb"), ann, "hash", testNow);
    EXPECT_EQ(failed.code, VEX_DIRECTORY_ERROR);
    EXPECT_EQ(failed.errText, "the password cannot be written");
    EXPECT_THAT(failed.detail, ::testing::HasSubstr("missing.ldb"));
}

}  // namespace
}  // namespace vexagent
