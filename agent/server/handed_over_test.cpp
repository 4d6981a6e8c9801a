// SPDX-License-Identifier: Apache-2.0
#include "agent/server/handed_over.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "agent/server/socket_file.h"

namespace vexagent {
namespace {

constexpr int kClosed = 1'000'000;

class HandedOver : public testing::Test {
  protected:
    ~HandedOver() override {
        for (const char* name : {"LISTEN_PID", "LISTEN_FDS", "LISTEN_FDNAMES"}) ::unsetenv(name);
    }

    static void set(const std::string& process, const std::string& count) {
        ::setenv("LISTEN_PID", process.c_str(), 1);
        ::setenv("LISTEN_FDS", count.c_str(), 1);
        ::setenv("LISTEN_FDNAMES", "vexagent.socket", 1);
    }
    static std::string own() { return std::to_string(::getpid()); }

    static std::string refusal(const std::string& count, int first) {
        set(own(), count);
        try {
            takeHandedOver(first);
        } catch (const SocketError& error) {
            return error.what();
        }
        return "taken";
    }
};

TEST_F(HandedOver, IsNothingWhereNothingWasSaid) {
    EXPECT_FALSE(takeHandedOver());
}

TEST_F(HandedOver, IsNothingWhenItIsAnotherProcesss) {
    for (const char* process : {"1", "", "-1", "x", "99999999999999999999"}) {
        set(process, "1");
        EXPECT_FALSE(takeHandedOver()) << process;
    }
    set(own() + " ", "1");
    EXPECT_FALSE(takeHandedOver());
}

TEST_F(HandedOver, BelongsToTheProcessAloneFromThenOn) {
    const int descriptor = ::open("/dev/null", O_RDONLY);
    ASSERT_EQ(::fcntl(descriptor, F_GETFD), 0);
    set(own(), "1");
    {
        const std::optional<vorn::Descriptor> taken = takeHandedOver(descriptor);
        ASSERT_TRUE(taken);
        EXPECT_EQ(taken->get(), descriptor);
        EXPECT_EQ(::fcntl(descriptor, F_GETFD), FD_CLOEXEC);
    }
    EXPECT_EQ(::fcntl(descriptor, F_GETFD), -1) << "closed by its owner";
    for (const char* name : {"LISTEN_PID", "LISTEN_FDS", "LISTEN_FDNAMES"})
        EXPECT_EQ(std::getenv(name), nullptr) << name;
    EXPECT_FALSE(takeHandedOver(descriptor));
}

TEST_F(HandedOver, IsOneDescriptorThatIsOpen) {
    const std::string one = ": the service manager must hand over one socket, the agent's";
    for (const std::string count : {"", "0", "2", "-1", "01", "x", "1 "})
        EXPECT_EQ(refusal(count, kClosed), "LISTEN_FDS=" + count + one);
    EXPECT_EQ(refusal("\n", kClosed), "LISTEN_FDS=\\0a" + one);
    EXPECT_EQ(refusal("1", kClosed), "LISTEN_FDS=1: descriptor 1000000: Bad file descriptor");
}

}  // namespace
}  // namespace vexagent
