// SPDX-License-Identifier: Apache-2.0
#include "agent/embedded/database.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <new>
#include <optional>
#include <thread>

#include "agent/embedded/directory_testing.h"
#include "agent/embedded/search.h"

namespace vexagent {
namespace {

class DatabaseReads : public testing::Test {
  protected:
    DatabaseReads() {
        const std::string people =
            person("Ann", "ann", 1) + person("Ben", "ben", 2) + person("Eve", "eve", 3);
        std::vector<std::string> complaints;
        buildDatabase(file(), m_folder.write("directory.ldif", units() + people), kRoot, complaints);
        m_database.emplace(file());
    }

    std::string file() const { return m_folder.file("directory.ldb"); }

    // Looks at every object, two units and three people, until the visitor has seen so many.
    int countUpTo(int last, Handle& handle) {
        const Pool pool = newPool();
        ldb_dn* root = ldb_dn_new(pool.get(), handle.ldb(), nullptr);
        int seen = 0;
        handle.search(root, LDB_SCOPE_SUBTREE, matchAll(pool.get()), nullptr,
                      [&](ldb_message*) { return ++seen < last; });
        return seen;
    }

    TemporaryFolder m_folder;
    std::optional<Database> m_database;
};

TEST_F(DatabaseReads, EndWhenTheVisitorHasSeenEnough) {
    const Database::Lease handle = m_database->lease();
    EXPECT_EQ(countUpTo(1, *handle), 1);
    EXPECT_EQ(countUpTo(2, *handle), 2);
    EXPECT_EQ(countUpTo(1000, *handle), 5);
}

TEST_F(DatabaseReads, EndWhenTheVisitorOfAnIndexHasSeenEnough) {
    const Database::Lease handle = m_database->lease();
    int seen = 0;
    handle->find("objectClass", "user", nullptr, [&](ldb_message*) { return ++seen < 2; });
    EXPECT_EQ(seen, 2);
}

// What all contexts of a process share is read for each request, without a lock.
TEST_F(DatabaseReads, GoOnWhileAnotherThreadOpensTheDatabase) {
    const Database::Lease handle = m_database->lease();
    std::atomic<bool> done = false;
    std::thread opener([&] {
        while (!done) EXPECT_NE(openLdb(file(), Access::Read), nullptr);
    });
    int failed = 0;
    for (int i = 0; i < 20000; ++i) failed += !handle->sequence();
    done = true;
    opener.join();
    EXPECT_EQ(failed, 0);
}

TEST_F(DatabaseReads, EndWhenMemoryDoes) {
    const Database::Lease handle = m_database->lease();
    EXPECT_THROW(
        handle->find("objectClass", "user", nullptr, [](ldb_message*) -> bool { throw std::bad_alloc(); }),
        std::bad_alloc);
    EXPECT_EQ(countUpTo(1, *handle), 1);
}

TEST_F(DatabaseReads, FindNobodyByWhatNobodyCanBeCalled) {
    const Database::Lease handle = m_database->lease();
    const Pool pool = newPool();
    for (const char* text : {"", "uidNumber=ann", "uidNumber=0x", "CN=x,uidNumber=ann", "CN=\\00"})
        EXPECT_EQ(handle->read(pool.get(), ldb_dn_new(pool.get(), handle->ldb(), text)), nullptr) << text;
    for (const char* attribute : {"uidNumber", "member", "objectGUID", "objectSid", "uid", "description"})
        for (const std::string& value : {std::string("J\xfcrgen"), std::string("a\0b", 3), std::string(),
                                         std::string(70'000, 'x'), std::string("=,="), std::string("0xffff")})
            handle->find(attribute, value, nullptr, [](ldb_message*) {
                ADD_FAILURE();
                return true;
            });
}

TEST_F(DatabaseReads, NeedTheFileThatIsThere) {
    const Database::Lease handle = m_database->lease();
    ASSERT_TRUE(std::filesystem::remove(file()));
    EXPECT_THROW(m_database->lease(), DatabaseError);
    EXPECT_FALSE(std::filesystem::exists(file()));
}

TEST_F(DatabaseReads, FailOnAFileThatIsNoneAnyMore) {
    const Database::Lease handle = m_database->lease();
    damage(file());
    const Pool pool = newPool();
    ldb_dn* ann = ldb_dn_new(pool.get(), handle->ldb(), "CN=Ann,OU=People,DC=example,DC=com");
    const auto nothing = [](ldb_message*) { return true; };
    EXPECT_THROW(handle->read(pool.get(), ann), ReadError);
    EXPECT_THROW(handle->readByGuid(pool.get(), std::string(16, 'x')), ReadError);
    EXPECT_THROW(handle->find("uid", "ann", nullptr, nothing), ReadError);
    EXPECT_THROW(handle->search(ann, LDB_SCOPE_SUBTREE, matchAll(pool.get()), nullptr, nothing), ReadError);
    EXPECT_EQ(handle->sequence(), std::nullopt);
}

}  // namespace
}  // namespace vexagent
