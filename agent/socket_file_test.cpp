#include "agent/socket_file.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <memory>

#include "agent/temporary_folder.h"

namespace vexagent {
namespace {

std::string failure(const SocketOptions& options) {
    try {
        const SocketFile file(options);
    } catch (const SocketError& error) {
        return std::string(error.what()).substr(options.path.size());
    }
    return "made";
}

bool exists(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0;
}

TEST(SocketFile, HasItsModeAndGoesWithItsOwner) {
    const TemporaryFolder folder;
    const std::string path = folder.file("s");
    {
        const SocketFile file({path, 0604, ""});
        struct stat status {};
        ASSERT_EQ(::lstat(path.c_str(), &status), 0);
        EXPECT_TRUE(S_ISSOCK(status.st_mode));
        EXPECT_EQ(status.st_mode & 0777, 0604u);
        EXPECT_FALSE(exists(path + ".n"));
    }
    EXPECT_FALSE(exists(path));
}

TEST(SocketFile, ALiveOneIsAnotherAgents) {
    const TemporaryFolder folder;
    const std::string path = folder.file("s");
    const SocketFile live({path, 0600, ""});
    EXPECT_EQ(failure({path, 0600, ""}), ": another agent answers on it");
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
    EXPECT_EQ(failure({path, 0600, ""}), "made");
}

TEST(SocketFile, AnotherSocketAtItsPathIsLeftAlone) {
    const TemporaryFolder folder;
    const std::string path = folder.file("s");
    auto first = std::make_unique<SocketFile>(SocketOptions{path, 0600, ""});
    ::unlink(path.c_str());
    const SocketFile second({path, 0600, ""});
    first.reset();
    EXPECT_TRUE(exists(path));
}

TEST(SocketFile, SaysWhyItCannotBe) {
    const TemporaryFolder folder;
    EXPECT_EQ(failure({folder.write("file", "x"), 0600, ""}), ": exists and is not a socket");
    EXPECT_EQ(failure({folder.file("none/s"), 0600, ""}), ": No such file or directory");
    EXPECT_EQ(failure({folder.file(std::string(120, 'x')), 0600, ""}),
              ": is not a possible path of a socket");
    EXPECT_EQ(failure({folder.file("s"), 0600, "no such group"}), ": there is no group \"no such group\"");
    EXPECT_FALSE(exists(folder.file("s")));
    EXPECT_FALSE(exists(folder.file("s.n")));
}

}  // namespace
}  // namespace vexagent
