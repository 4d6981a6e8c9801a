// SPDX-License-Identifier: Apache-2.0
#include "vex/socket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>

namespace vex {
namespace {

bool isOpen(int descriptor) {
    return ::fcntl(descriptor, F_GETFD) >= 0;
}

int descriptorOfItsOwn() {
    return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

TEST(Socket, OfAnOpenDescriptorCountsAndClosesIt) {
    const std::size_t before = openSockets();
    const int descriptor = descriptorOfItsOwn();
    {
        const Socket socket(descriptor);
        EXPECT_EQ(openSockets(), before + 1);
    }
    EXPECT_EQ(openSockets(), before);
    EXPECT_FALSE(isOpen(descriptor));
}

TEST(Socket, ThatCouldNotBeMadeDoesNotCount) {
    const std::size_t before = openSockets();
    const Socket socket(-1);
    EXPECT_EQ(openSockets(), before);
}

// In the child: its parent's sockets are closed and forgotten, and their numbers are free.
TEST(Socket, IsItsParentsInAChild) {
    const int descriptor = descriptorOfItsOwn();
    const unsigned before = generation();
    const pid_t child = ::fork();
    EXPECT_EQ(generation(), child == 0 ? before + 1 : before);
    if (child == 0) ::_exit(1);
    ::waitpid(child, nullptr, 0);

    const Socket socket(descriptor);
    const pid_t second = ::fork();
    if (second == 0) ::_exit(!isOpen(descriptor) && openSockets() == 0 && socket.inherited() ? 0 : 1);
    int status = -1;
    ASSERT_EQ(::waitpid(second, &status, 0), second);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(isOpen(descriptor));
    EXPECT_FALSE(socket.inherited());
}

// The number of what its parent had may be another file's by then.
TEST(Socket, OfItsParentsClosesNothingOfTheChild) {
    const int descriptor = descriptorOfItsOwn();
    auto socket = std::make_unique<Socket>(descriptor);
    const pid_t child = ::fork();
    if (child == 0) {
        const bool taken = ::dup2(STDERR_FILENO, descriptor) == descriptor;
        socket.reset();
        ::_exit(taken && isOpen(descriptor) ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace vex
