// SPDX-License-Identifier: Apache-2.0
#include "agent/server/notify.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>

#include <cstddef>
#include <cstdlib>

#include "agent/server/descriptors_testing.h"
#include "vorn/temporary_folder_testing.h"

namespace vexagent {

using vorn::test::TemporaryFolder;

namespace {

// A service manager's socket; name as NOTIFY_SOCKET has it.
class Manager {
  public:
    explicit Manager(const std::string& name)
        : m_descriptor(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        name.copy(address.sun_path, name.size());
        auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
        if (name[0] == '@')
            address.sun_path[0] = '\0';
        else
            ++length;
        EXPECT_EQ(::bind(m_descriptor, reinterpret_cast<sockaddr*>(&address), length), 0);
        ::setenv("NOTIFY_SOCKET", name.c_str(), 1);
    }
    ~Manager() {
        ::unsetenv("NOTIFY_SOCKET");
        ::close(m_descriptor);
    }
    std::string heard() const {
        char text[64] = {};
        const ssize_t size = ::recv(m_descriptor, text, sizeof text, 0);
        return size < 0 ? "" : std::string(text, static_cast<std::size_t>(size));
    }

  private:
    const int m_descriptor;
};

TEST(Notify, TellsAManagerAtAPath) {
    const TemporaryFolder folder;
    const Manager manager(folder.file("notify"));
    EXPECT_TRUE(notifyManager("READY=1"));
    EXPECT_EQ(manager.heard(), "READY=1");
}

TEST(Notify, TellsAManagerInTheAbstractNameSpace) {
    const Manager manager("@vexagent-test-" + std::to_string(::getpid()));
    EXPECT_TRUE(notifyManager("STOPPING=1"));
    EXPECT_EQ(manager.heard(), "STOPPING=1");
}

TEST(Notify, WithoutAManagerThereIsNobodyToTell) {
    ::unsetenv("NOTIFY_SOCKET");
    EXPECT_FALSE(notifyManager("READY=1"));
    for (const char* name : {"", "relative", "/nowhere/at/all"}) {
        ::setenv("NOTIFY_SOCKET", name, 1);
        EXPECT_FALSE(notifyManager("READY=1")) << name;
    }
    ::unsetenv("NOTIFY_SOCKET");
}

TEST(Notify, ANameThatIsNoneOfAManagerIsNotWrittenTo) {
    const TemporaryFolder folder;
    const Manager manager(std::filesystem::relative(folder.file("notify")).string());
    EXPECT_FALSE(notifyManager("READY=1")) << "it begins at no root";
    EXPECT_EQ(manager.heard(), "");
    const std::string longest = "@vexagent-" + std::to_string(::getpid());
    const Manager other(longest + std::string(sizeof sockaddr_un().sun_path - longest.size(), 'x'));
    EXPECT_FALSE(notifyManager("READY=1")) << "it fills the address";
    EXPECT_EQ(other.heard(), "");
    ::setenv("NOTIFY_SOCKET", ("/" + std::string(300, 'x')).c_str(), 1);
    EXPECT_FALSE(notifyManager("READY=1"));
}

TEST(Notify, KeepsNoDescriptor) {
    const TemporaryFolder folder;
    const Manager manager(folder.file("notify"));
    const int before = lowestFree();
    EXPECT_TRUE(notifyManager("READY=1"));
    EXPECT_EQ(lowestFree(), before);
}

TEST(Notify, WithoutADescriptorLeftNobodyIsTold) {
    const TemporaryFolder folder;
    const Manager manager(folder.file("notify"));
    const FewDescriptors none(0);
    EXPECT_FALSE(notifyManager("READY=1"));
    EXPECT_EQ(manager.heard(), "");
}

}  // namespace
}  // namespace vexagent
