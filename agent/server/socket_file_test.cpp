#include "agent/server/socket_file.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <latch>
#include <memory>
#include <thread>
#include <vector>

#include "vorn/temporary_folder_testing.h"

namespace vexagent {

using vorn::test::TemporaryFolder;

namespace {

std::string failure(const SocketOptions& options) {
    try {
        const SocketFile file(options);
    } catch (const std::runtime_error& error) {
        return std::string(error.what()).substr(options.path.size());
    }
    return "made";
}

bool exists(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0;
}

std::vector<std::string> contentOf(const TemporaryFolder& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder.file("")))
        names.push_back(entry.path().filename().string());
    return names;
}

// A path of so many bytes: the folder takes what the socket's name leaves.
std::string pathOf(const TemporaryFolder& folder, std::size_t size, std::size_t nameSize) {
    std::string path = folder.file("");
    path += std::string(size - nameSize - 1 - path.size(), 'd');
    std::filesystem::create_directory(path);
    return path + "/" + std::string(nameSize, 's');
}

bool canConnect(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, path.size());
    const int client = ::socket(AF_UNIX, SOCK_STREAM, 0);
    const bool connected = ::connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(client);
    return connected;
}

TEST(SocketFile, MayHaveAnyPathThatFits) {
    for (const std::size_t size : {105, 106, 107})
        for (const std::size_t nameSize : {1, 2, 40}) {
            const TemporaryFolder folder;
            const std::string path = pathOf(folder, size, nameSize);
            ASSERT_EQ(path.size(), size);
            const SocketFile file({path, 0600});
            EXPECT_TRUE(canConnect(path)) << size << " " << nameSize;
        }
    const TemporaryFolder folder;
    EXPECT_EQ(failure({pathOf(folder, 108, 4), 0600}), ": is not a possible path of a socket");
}

TEST(SocketFile, HasItsGroup) {
    const TemporaryFolder folder;
    const SocketFile file({folder.file("s"), 0600, ::getegid()});
    struct stat status {};
    ASSERT_EQ(::lstat(folder.file("s").c_str(), &status), 0);
    EXPECT_EQ(status.st_gid, ::getegid());
    // Only the superuser may give what it likes.
    if (::geteuid() != 0) return;
    const SocketFile other({folder.file("t"), 0600, 12345});
    ASSERT_EQ(::lstat(folder.file("t").c_str(), &status), 0);
    EXPECT_EQ(status.st_gid, 12345u);
}

TEST(SocketFile, OneOfSeveralAtTheSameInstantGetsThePath) {
    constexpr int kAgents = 8;
    const TemporaryFolder folder;
    const std::string path = folder.file("s");
    std::latch start(kAgents);
    std::vector<std::unique_ptr<SocketFile>> files(kAgents);
    std::vector<std::string> failures(kAgents);
    std::vector<std::thread> agents;
    for (std::size_t i = 0; i < kAgents; ++i)
        agents.emplace_back([&, i] {
            start.arrive_and_wait();
            try {
                files[i] = std::make_unique<SocketFile>(SocketOptions{path, 0600});
            } catch (const SocketError& error) {
                failures[i] = error.what();
            }
        });
    for (std::thread& agent : agents) agent.join();
    EXPECT_EQ(std::count(failures.begin(), failures.end(), ""), 1);
    EXPECT_EQ(std::count(failures.begin(), failures.end(), path + ": another agent answers on it"),
              kAgents - 1);
    EXPECT_TRUE(canConnect(path));
}

TEST(SocketFile, AFolderThatStaysLockedIsSaid) {
    const TemporaryFolder folder;
    const std::string path = folder.file("s");
    const FolderLock held(path);
    EXPECT_THROW(FolderLock(path, std::chrono::milliseconds(0)), LockError);
    try {
        const FolderLock second(path, std::chrono::milliseconds(1));
        ADD_FAILURE() << "locked twice";
    } catch (const LockError& error) {
        EXPECT_EQ(std::string(error.what()), path + ": another process keeps its folder locked");
    }
}

TEST(SocketFile, HasItsModeAndGoesWithItsOwner) {
    const TemporaryFolder folder;
    const std::string path = folder.file("s");
    {
        const SocketFile file({path, 0604});
        struct stat status {};
        ASSERT_EQ(::lstat(path.c_str(), &status), 0);
        EXPECT_TRUE(S_ISSOCK(status.st_mode));
        EXPECT_EQ(status.st_mode & 0777, 0604u);
        EXPECT_EQ(contentOf(folder), std::vector<std::string>{"s"});
    }
    EXPECT_FALSE(exists(path));
}

TEST(SocketFile, ALiveOneIsAnotherAgents) {
    const TemporaryFolder folder;
    const std::string path = folder.file("s");
    const SocketFile live({path, 0600});
    EXPECT_EQ(failure({path, 0600}), ": another agent answers on it");
    EXPECT_TRUE(exists(path));
}

TEST(SocketFile, AStaleOneIsReplaced) {
    const TemporaryFolder folder;
    const std::string path = folder.file("s");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, path.size());
    const int left = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(::bind(left, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ::close(left);
    ASSERT_TRUE(exists(path));
    EXPECT_EQ(failure({path, 0600}), "made");
}

TEST(SocketFile, AnotherSocketAtItsPathIsLeftAlone) {
    const TemporaryFolder folder;
    const std::string path = folder.file("s");
    auto first = std::make_unique<SocketFile>(SocketOptions{path, 0600});
    ::unlink(path.c_str());
    const SocketFile second({path, 0600});
    first.reset();
    EXPECT_TRUE(exists(path));
}

TEST(SocketFile, SaysWhyItCannotBe) {
    const TemporaryFolder folder;
    EXPECT_EQ(failure({folder.write("file", "x"), 0600}), ": exists and is not a socket");
    EXPECT_EQ(failure({folder.file("none/s"), 0600}), ": No such file or directory");
    EXPECT_EQ(failure({folder.file(std::string(120, 'x')), 0600}), ": is not a possible path of a socket");
    EXPECT_EQ(failure({"", 0600}), ": is not a possible path of a socket");
    EXPECT_EQ(contentOf(folder), std::vector<std::string>{"file"});
}

}  // namespace
}  // namespace vexagent
