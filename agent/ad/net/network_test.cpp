// What is done with addresses and sockets.

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "agent/ad/net/sockets.h"
#include "agent/ad/net/watchdog.h"

namespace vexagent {
namespace {

std::string parsed(const std::string& text) {
    Peer peer;
    if (!parsePeer(text, 389, peer)) return "none";
    return peer.host + " " + std::to_string(peer.port);
}

TEST(Peer, IsAHostAndPerhapsAPort) {
    const std::pair<const char*, const char*> cases[] = {
        {"dc1.example.com", "dc1.example.com 389"},
        {"dc1.example.com:1389", "dc1.example.com 1389"},
        {"127.0.0.1", "127.0.0.1 389"},
        {"127.0.0.1:65535", "127.0.0.1 65535"},
        {"::1", "::1 389"},
        {"[::1]", "::1 389"},
        {"[::1]:3268", "::1 3268"},
        {"", "none"},
        {":389", "none"},
        {"dc1:", "none"},
        {"dc1:0", "none"},
        {"dc1:65536", "none"},
        {"dc1:12x", "none"},
        {"[::1]x", "none"},
        {"[::1]:", "none"},
        {"[]:389", "none"},
        {"ldap://dc1", "none"},
        {"user@dc1", "none"},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(parsed(text), expected) << text;
}

TEST(Deadline, AShareLeavesTimeForOthers) {
    EXPECT_EQ(within(milliseconds(60'000)).share(milliseconds(1500), 4), milliseconds(1500));
    EXPECT_LE(within(milliseconds(2000)).share(milliseconds(1500), 4), milliseconds(500));
    EXPECT_GT(within(milliseconds(2000)).share(milliseconds(1500), 4), milliseconds(0));
    EXPECT_EQ(Deadline(vorn::systemSteadyClock(), now() - milliseconds(1)).share(milliseconds(1500), 4),
              milliseconds(0));
}

TEST(Deadline, APartOfItBelongsToTheSameRequest) {
    const Deadline whole = within(milliseconds(60'000));
    EXPECT_EQ(whole.atMost(milliseconds(10)).begin(), whole.begin());
    EXPECT_LT(whole.atMost(milliseconds(10)).end(), whole.end());
    EXPECT_LE(whole.begin(), now());
}

struct Pair {
    Pair() {
        int ends[2] = {-1, -1};
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        ours = vorn::Descriptor(ends[0]);
        theirs = vorn::Descriptor(ends[1]);
    }
    vorn::Descriptor ours{-1};
    vorn::Descriptor theirs{-1};
};

TEST(Watchdog, EndsAReadThatOverstays) {
    const Pair pair;
    Watchdog dog;
    const Moment start = now();
    const Watchdog::Watch watch(dog, pair.ours.get(), within(milliseconds(50)));
    char byte = 0;
    EXPECT_EQ(::recv(pair.ours.get(), &byte, 1, 0), 0);
    EXPECT_GE(now() - start, milliseconds(50));
}

TEST(Watchdog, TheFirstDeadlineCountsWhateverTheOrder) {
    const Pair late;
    const Pair soon;
    Watchdog dog;
    const Watchdog::Watch first(dog, late.ours.get(), within(milliseconds(60'000)));
    const Watchdog::Watch second(dog, soon.ours.get(), within(milliseconds(20)));
    char byte = 0;
    EXPECT_EQ(::recv(soon.ours.get(), &byte, 1, 0), 0);
    EXPECT_FALSE(isDisturbed(late.ours.get()));
}

TEST(Watchdog, LeavesACallAloneThatEndedInTime) {
    const Pair watched;
    const Pair other;
    Watchdog dog;
    { const Watchdog::Watch watch(dog, watched.ours.get(), within(milliseconds(30))); }
    // Whatever it would have done to the first is done when it has ended this one.
    const Watchdog::Watch watch(dog, other.ours.get(), within(milliseconds(40)));
    char byte = 0;
    EXPECT_EQ(::recv(other.ours.get(), &byte, 1, 0), 0);
    EXPECT_FALSE(isDisturbed(watched.ours.get()));
}

TEST(Watchdog, IsNotHeldUpByAWatchThatHasEnded) {
    const Pair pair;
    Watchdog dog;
    { const Watchdog::Watch watch(dog, pair.ours.get(), within(milliseconds(60'000))); }
    const Watchdog::Watch watch(dog, pair.ours.get(), within(milliseconds(20)));
    char byte = 0;
    EXPECT_EQ(::recv(pair.ours.get(), &byte, 1, 0), 0);
}

TEST(Sockets, AReadEndsAtItsDeadline) {
    const Pair pair;
    std::string bytes;
    EXPECT_TRUE(writeAll(pair.theirs.get(), "ab", within(milliseconds(5000))));
    EXPECT_TRUE(readExactly(pair.ours.get(), 2, bytes, within(milliseconds(5000))));
    EXPECT_EQ(bytes, "ab");
    EXPECT_TRUE(writeAll(pair.theirs.get(), "c", within(milliseconds(5000))));
    EXPECT_FALSE(readExactly(pair.ours.get(), 2, bytes, within(milliseconds(20))));
}

TEST(Sockets, APeerThatHasGoneOrTalksUnaskedDisturbs) {
    Pair pair;
    EXPECT_FALSE(isDisturbed(pair.ours.get()));
    EXPECT_TRUE(writeAll(pair.theirs.get(), "x", within(milliseconds(5000))));
    EXPECT_TRUE(isDisturbed(pair.ours.get()));
    Pair gone;
    gone.theirs = vorn::Descriptor(-1);
    EXPECT_TRUE(isDisturbed(gone.ours.get()));
}

TEST(Sockets, NobodyAtAPortIsToldAtOnce) {
    // A port that nobody listens on, since it is taken and never listened on.
    const vorn::Descriptor taken(::socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    ASSERT_EQ(::bind(taken.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
    ASSERT_EQ(::getsockname(taken.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
    std::string reason;
    const std::uint16_t port = ntohs(address.sin_port);
    EXPECT_LT(connectTo({"127.0.0.1", port}, within(milliseconds(5000)), reason).get(), 0);
    EXPECT_EQ(reason, "127.0.0.1 port " + std::to_string(port) + ": Connection refused");
}

}  // namespace
}  // namespace vexagent
