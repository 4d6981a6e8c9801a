// SPDX-License-Identifier: Apache-2.0
#include "agent/server/socket_file.h"

#include <fcntl.h>
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

#include "agent/server/descriptors_testing.h"
#include "vorn/descriptor.h"
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

sockaddr_un addressAt(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, path.size());
    return address;
}

// A socket at the path that nobody takes connections from.
int listening(const std::string& path, int type) {
    const int socket = ::socket(AF_UNIX, type, 0);
    const sockaddr_un address = addressAt(path);
    EXPECT_EQ(::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ::listen(socket, 1);
    return socket;
}

bool canConnect(const std::string& path) {
    sockaddr_un address = addressAt(path);
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
    EXPECT_EQ(status.st_uid, ::geteuid());
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
    const mode_t usual = ::umask(022);
    {
        const SocketFile file({path, 0604});
        EXPECT_EQ(::umask(usual), 022u) << "files' modes are as they were";
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
    const int before = lowestFree();
    EXPECT_EQ(failure({path, 0600}), ": another agent answers on it");
    EXPECT_EQ(lowestFree(), before);
    EXPECT_TRUE(exists(path));
}

TEST(SocketFile, OneThatIsTooBusyToAnswerIsAnotherAgents) {
    const TemporaryFolder folder;
    const std::string path = folder.file("s");
    const vorn::Descriptor listener(listening(path, SOCK_STREAM));
    std::vector<vorn::Descriptor> waiting;
    while (waiting.size() < 100) {
        waiting.emplace_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0));
        const sockaddr_un address = addressAt(path);
        if (::connect(waiting.back().get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
            break;
    }
    ASSERT_LT(waiting.size(), 100u);
    EXPECT_EQ(failure({path, 0600}), ": another agent answers on it");
}

TEST(SocketFile, OneOfAnotherKindIsLeftAlone) {
    const TemporaryFolder folder;
    const vorn::Descriptor other(listening(folder.file("s"), SOCK_DGRAM));
    EXPECT_EQ(failure({folder.file("s"), 0600}), ": Protocol wrong type for socket");
}

TEST(SocketFile, WhatAnAgentThatWasKilledLeftUnreadyIsReplaced) {
    const TemporaryFolder folder;
    { const vorn::Descriptor left(listening(folder.file(".vexagent.new"), SOCK_STREAM)); }
    EXPECT_EQ(failure({folder.file("s"), 0600}), "made");
    EXPECT_FALSE(exists(folder.file(".vexagent.new")));
}

TEST(SocketFile, OneThatCannotBeMadeKeepsNoDescriptor) {
    const TemporaryFolder folder;
    std::filesystem::create_directory(folder.file(".vexagent.new"));
    const int before = lowestFree();
    EXPECT_EQ(failure({folder.file("s"), 0600}), ": Address already in use");
    EXPECT_EQ(lowestFree(), before);
}

TEST(SocketFile, WithoutADescriptorForItItCannotBe) {
    const TemporaryFolder folder;
    const FewDescriptors one(1);
    EXPECT_EQ(failure({folder.file("s"), 0600}), ": Too many open files") << "the folder's lock has it";
}

// As long as it lives, who is the superuser is nobody.
class Unprivileged {
  public:
    Unprivileged() : m_user(::geteuid()) { EXPECT_EQ(::seteuid(m_user == 0 ? kNobody : m_user), 0); }
    ~Unprivileged() { EXPECT_EQ(::seteuid(m_user), 0); }
    Unprivileged(const Unprivileged&) = delete;
    Unprivileged& operator=(const Unprivileged&) = delete;

    static constexpr uid_t kNobody = 65534;

  private:
    const uid_t m_user;
};

// Only the superuser may give what it likes.
TEST(SocketFile, AGroupThatTheAgentMayNotGiveIsSaid) {
    const TemporaryFolder folder;
    if (::geteuid() == 0) {
        ASSERT_EQ(::chown(folder.file("").c_str(), Unprivileged::kNobody, Unprivileged::kNobody), 0);
    }
    const Unprivileged nobody;
    EXPECT_EQ(failure({folder.file("s"), 0600, 12345}), ": Operation not permitted");
    EXPECT_TRUE(contentOf(folder).empty());
    EXPECT_EQ(failure({folder.file("s"), 0600, ::getegid()}), "made") << "its own it may";
}

TEST(SocketFile, OneThatTheAgentMayNotReplaceIsSaid) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root has what others may not replace";
    const TemporaryFolder folder;
    const std::string path = folder.file("s");
    { const vorn::Descriptor left(listening(path, SOCK_STREAM)); }
    ASSERT_EQ(::chmod(path.c_str(), 0666), 0);
    ASSERT_EQ(::chmod(folder.file("").c_str(), 01777), 0);
    const Unprivileged nobody;
    EXPECT_EQ(failure({path, 0600}), ": Operation not permitted");
    EXPECT_EQ(contentOf(folder), std::vector<std::string>{"s"});
}

TEST(SocketFile, WhoeverReleasesItOwnsIt) {
    const TemporaryFolder folder;
    int released = -1;
    {
        SocketFile file({folder.file("s"), 0600});
        released = file.release();
    }
    EXPECT_NE(::fcntl(released, F_GETFD), -1) << "open still";
    ::close(released);
    const int before = lowestFree();
    { const SocketFile file({folder.file("t"), 0600}); }
    EXPECT_EQ(lowestFree(), before);
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

// ---------------------------------------------------- what was handed over

// As a service manager makes it.
vorn::Descriptor made(const std::string& path, int type = SOCK_STREAM) {
    vorn::Descriptor socket(::socket(AF_UNIX, type, 0));
    const sockaddr_un address = addressAt(path);
    EXPECT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    return socket;
}

vorn::Descriptor listening(const std::string& path) {
    vorn::Descriptor socket = made(path);
    EXPECT_EQ(::listen(socket.get(), 4), 0);
    return socket;
}

std::string refusal(const SocketOptions& options, vorn::Descriptor handedOver) {
    try {
        const SocketFile file(options, std::move(handedOver));
    } catch (const SocketError& error) {
        return std::string(error.what()).substr(options.path.size());
    }
    return "taken";
}

mode_t modeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0);
    return status.st_mode & 07777;
}

TEST(HandedOverSocket, StaysForTheAgentsThatFollow) {
    const TemporaryFolder folder;
    const std::string path = folder.file("s");
    vorn::Descriptor managers = listening(path);
    {
        SocketFile file({path, 0600}, vorn::Descriptor(::dup(managers.get())));
        file.remove();
        EXPECT_TRUE(canConnect(path));
        const vorn::Descriptor taken(file.release());
        const vorn::Descriptor client(::accept(taken.get(), nullptr, nullptr));
        EXPECT_GE(client.get(), 0);
    }
    EXPECT_TRUE(canConnect(path)) << "waits for the next agent";
}

TEST(HandedOverSocket, HasTheModeAndGroupOfOneOfTheAgentsOwn) {
    const TemporaryFolder folder;
    const std::string path = folder.file("s");
    vorn::Descriptor socket = listening(path);
    ::chmod(path.c_str(), 0777);
    const SocketFile file({path, 0604, ::getegid()}, std::move(socket));
    EXPECT_EQ(modeOf(path), 0604u);
}

TEST(HandedOverSocket, HasTheAgentsOwnerAndGroup) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can give files away";
    const TemporaryFolder folder;
    const std::string path = folder.file("s");
    vorn::Descriptor socket = listening(path);
    ASSERT_EQ(::chown(path.c_str(), 65534, 65534), 0);
    const SocketFile file({path, 0660}, std::move(socket));
    struct stat status {};
    ASSERT_EQ(::lstat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, ::geteuid());
    EXPECT_EQ(status.st_gid, ::getegid());
    EXPECT_EQ(modeOf(path), 0660u);
}

TEST(HandedOverSocket, ThatTheAgentMayNotChangeIsRefused) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root has what others may not change";
    const TemporaryFolder folder;
    const std::string path = folder.file("s");
    vorn::Descriptor socket = listening(path);
    ASSERT_EQ(::chmod(folder.file("").c_str(), 0755), 0);
    const Unprivileged nobody;
    EXPECT_EQ(refusal({path, 0600}, std::move(socket)),
              ": cannot have the agent's owner, group and mode: Operation not permitted; SocketUser of the "
              "socket's unit must be the agent's user");
}

TEST(HandedOverSocket, MayBeReachedByAnotherNameOfItsFolder) {
    const TemporaryFolder folder;
    std::filesystem::create_directory(folder.file("run"));
    std::filesystem::create_directory_symlink(folder.file("run"), folder.file("var"));
    EXPECT_EQ(refusal({folder.file("var/s"), 0600}, listening(folder.file("run/s"))), "taken");
}

TEST(HandedOverSocket, ListensForStreamsAtThePath) {
    const TemporaryFolder folder;
    const std::string none = ": what the service manager handed over is not a listening Unix stream socket";
    const std::string path = folder.file("s");
    EXPECT_EQ(refusal({path, 0600}, vorn::Descriptor(::open("/dev/null", O_RDONLY))), none);
    EXPECT_EQ(refusal({path, 0600}, vorn::Descriptor(::socket(AF_INET, SOCK_STREAM, 0))), none);
    EXPECT_EQ(refusal({path, 0600}, made(folder.file("datagrams"), SOCK_DGRAM)), none);
    EXPECT_EQ(refusal({path, 0600}, made(folder.file("deaf"))), none);
    const auto elsewhere = [](const std::string& place) {
        return ": the service manager handed over a socket at \"" + place +
               "\"; ListenStream of the socket's unit and agent.socket must be the same";
    };
    EXPECT_EQ(refusal({path, 0600}, listening(folder.file("other"))), elsewhere(folder.file("other")));
    EXPECT_EQ(refusal({folder.file("other"), 0600}, listening(path)), elsewhere(path)) << "both are there";
    EXPECT_EQ(refusal({"", 0600}, listening(folder.file("t"))), ": is not a possible path of a socket");
}

TEST(HandedOverSocket, WithoutAPlaceInTheFileSystemIsRefused) {
    const TemporaryFolder folder;
    vorn::Descriptor socket(::socket(AF_UNIX, SOCK_STREAM, 0));
    const sockaddr_un address{AF_UNIX, {}};
    // The kernel chooses an abstract name of five bytes behind a NUL.
    ASSERT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(sa_family_t)), 0);
    ASSERT_EQ(::listen(socket.get(), 4), 0);
    EXPECT_TRUE(refusal({folder.file("s"), 0600}, std::move(socket))
                    .starts_with(": the service manager handed over a socket at \"\\00"));
}

TEST(HandedOverSocket, ThatIsGoneFromItsPathIsRefused) {
    const TemporaryFolder folder;
    const std::string path = folder.file("s");
    vorn::Descriptor socket = listening(path);
    ::unlink(path.c_str());
    EXPECT_EQ(refusal({path, 0600}, vorn::Descriptor(::dup(socket.get()))), ": No such file or directory");
    folder.write("s", "x");
    EXPECT_EQ(refusal({path, 0600}, std::move(socket)), ": is not a socket any more");
}

}  // namespace
}  // namespace vexagent
