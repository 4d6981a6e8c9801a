// What is done with addresses, DNS answers and sockets.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "agent/ad/net/sockets.h"
#include "agent/ad/net/srv.h"
#include "agent/ad/net/watchdog.h"

namespace vexagent {
namespace {

using ::testing::ElementsAre;

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

std::vector<std::string> targets(const std::vector<SrvRecord>& records) {
    std::vector<std::string> names;
    names.reserve(records.size());
    for (const SrvRecord& record : records) names.push_back(record.target);
    return names;
}

TEST(Deadline, AShareLeavesTimeForOthers) {
    EXPECT_EQ(Deadline::in(milliseconds(60'000)).share(milliseconds(1500), 4), milliseconds(1500));
    EXPECT_LE(Deadline::in(milliseconds(2000)).share(milliseconds(1500), 4), milliseconds(500));
    EXPECT_GT(Deadline::in(milliseconds(2000)).share(milliseconds(1500), 4), milliseconds(0));
    EXPECT_EQ(Deadline(now() - milliseconds(1)).share(milliseconds(1500), 4), milliseconds(0));
}

TEST(Deadline, APartOfItBelongsToTheSameRequest) {
    const Deadline whole = Deadline::in(milliseconds(60'000));
    EXPECT_EQ(whole.atMost(milliseconds(10)).begin(), whole.begin());
    EXPECT_LT(whole.atMost(milliseconds(10)).end(), whole.end());
    EXPECT_LE(whole.begin(), now());
}

TEST(SrvOrder, LowerPrioritiesComeFirst) {
    const auto ordered =
        orderRecords({{20, 0, 389, "c"}, {0, 0, 389, "a"}, {10, 0, 389, "b"}}, [] { return 0.0; });
    EXPECT_THAT(targets(ordered), ElementsAre("a", "b", "c"));
}

TEST(SrvOrder, WithinAPriorityItIsDrawnByWeight) {
    const std::vector<SrvRecord> records = {
        {0, 10, 389, "light"}, {0, 90, 389, "heavy"}, {0, 0, 389, "none"}};
    const auto first = [&](double drawn) {
        return targets(orderRecords(records, [drawn] { return drawn; }))[0];
    };
    EXPECT_EQ(first(0.0), "none");
    EXPECT_EQ(first(0.05), "light");
    EXPECT_EQ(first(0.5), "heavy");
    EXPECT_EQ(first(0.999), "heavy");
    EXPECT_THAT(targets(orderRecords(records, [] { return 0.999; })), ElementsAre("heavy", "light", "none"));
}

TEST(SrvOrder, NothingStaysNothing) {
    EXPECT_TRUE(orderRecords({}, [] { return 0.5; }).empty());
}

TEST(SrvTarget, LiesBelowADomainOrDoesNot) {
    const struct {
        const char* host;
        const char* domain;
        bool below;
    } cases[] = {
        {"dc1.example.com", "example.com", true},
        {"DC1.Site.EXAMPLE.com", "example.COM", true},
        {"example.com", "example.com", true},
        {"dcexample.com", "example.com", false},
        {"dc1.example.com.evil.net", "example.com", false},
        {"com", "example.com", false},
        {".com", "example.com", false},
        {"dc1.example.comx", "example.com", false},
        {"127.0.0.1", "example.com", false},
        {"dc1.example.com", "", false},
        {"", "", false},
    };
    for (const auto& [host, domain, below] : cases) EXPECT_EQ(liesBelow(host, domain), below) << host;
}

// A DNS answer to a question about "x" with one record of the type and data.
std::string answer(std::uint16_t type, const std::string& data) {
    std::string bytes("\0\1\x84\0\0\1\0\1\0\0\0\0", 12);
    bytes += std::string("\1x\0\0\x21\0\1", 7);
    bytes += std::string("\xc0\x0c", 2);
    bytes += {static_cast<char>(type >> 8), static_cast<char>(type)};
    bytes += std::string("\0\1\0\0\0\x3c", 6);
    bytes += {static_cast<char>(data.size() >> 8), static_cast<char>(data.size())};
    return bytes + data;
}

bool parse(const std::string& bytes, std::vector<SrvRecord>& records) {
    return parseSrvAnswer(reinterpret_cast<const unsigned char*>(bytes.data()),
                          static_cast<int>(bytes.size()), records);
}

TEST(SrvAnswer, IsRead) {
    std::vector<SrvRecord> records;
    ASSERT_TRUE(parse(answer(33, std::string("\0\1\0\2\1\x85\3dc1\4test\0", 16)), records));
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].priority, 1);
    EXPECT_EQ(records[0].weight, 2);
    EXPECT_EQ(records[0].port, 389);
    EXPECT_EQ(records[0].target, "dc1.test");
}

TEST(SrvAnswer, OtherRecordsAndNoServiceGiveNothing) {
    std::vector<SrvRecord> records;
    EXPECT_TRUE(parse(answer(1, std::string("\x7f\0\0\1", 4)), records));
    EXPECT_TRUE(records.empty());
    EXPECT_TRUE(parse(answer(33, std::string("\0\0\0\0\0\0\0", 7)), records));
    EXPECT_TRUE(records.empty());
}

TEST(SrvAnswer, CutAnywhereItIsRefusedOrEmpty) {
    const std::string whole = answer(33, std::string("\0\1\0\2\1\x85\3dc1\4test\0", 16));
    std::vector<SrvRecord> records;
    for (std::size_t size = 0; size < whole.size(); ++size)
        EXPECT_FALSE(parse(whole.substr(0, size), records)) << size;
    // A name that points at itself.
    EXPECT_FALSE(parse(answer(33, std::string("\0\1\0\2\1\x85\xc0\x25", 8)), records));
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
    const Watchdog::Watch watch(dog, pair.ours.get(), Deadline::in(milliseconds(50)));
    char byte = 0;
    EXPECT_EQ(::recv(pair.ours.get(), &byte, 1, 0), 0);
    EXPECT_GE(now() - start, milliseconds(50));
}

TEST(Watchdog, TheFirstDeadlineCountsWhateverTheOrder) {
    const Pair late;
    const Pair soon;
    Watchdog dog;
    const Watchdog::Watch first(dog, late.ours.get(), Deadline::in(milliseconds(60'000)));
    const Watchdog::Watch second(dog, soon.ours.get(), Deadline::in(milliseconds(20)));
    char byte = 0;
    EXPECT_EQ(::recv(soon.ours.get(), &byte, 1, 0), 0);
    EXPECT_FALSE(isDisturbed(late.ours.get()));
}

TEST(Watchdog, LeavesACallAloneThatEndedInTime) {
    const Pair watched;
    const Pair other;
    Watchdog dog;
    { const Watchdog::Watch watch(dog, watched.ours.get(), Deadline::in(milliseconds(30))); }
    // Whatever it would have done to the first is done when it has ended this one.
    const Watchdog::Watch watch(dog, other.ours.get(), Deadline::in(milliseconds(40)));
    char byte = 0;
    EXPECT_EQ(::recv(other.ours.get(), &byte, 1, 0), 0);
    EXPECT_FALSE(isDisturbed(watched.ours.get()));
}

TEST(Watchdog, IsNotHeldUpByAWatchThatHasEnded) {
    const Pair pair;
    Watchdog dog;
    { const Watchdog::Watch watch(dog, pair.ours.get(), Deadline::in(milliseconds(60'000))); }
    const Watchdog::Watch watch(dog, pair.ours.get(), Deadline::in(milliseconds(20)));
    char byte = 0;
    EXPECT_EQ(::recv(pair.ours.get(), &byte, 1, 0), 0);
}

TEST(Sockets, AReadEndsAtItsDeadline) {
    const Pair pair;
    std::string bytes;
    EXPECT_TRUE(writeAll(pair.theirs.get(), "ab", Deadline::in(milliseconds(5000))));
    EXPECT_TRUE(readExactly(pair.ours.get(), 2, bytes, Deadline::in(milliseconds(5000))));
    EXPECT_EQ(bytes, "ab");
    EXPECT_TRUE(writeAll(pair.theirs.get(), "c", Deadline::in(milliseconds(5000))));
    EXPECT_FALSE(readExactly(pair.ours.get(), 2, bytes, Deadline::in(milliseconds(20))));
}

TEST(Sockets, APeerThatHasGoneOrTalksUnaskedDisturbs) {
    Pair pair;
    EXPECT_FALSE(isDisturbed(pair.ours.get()));
    EXPECT_TRUE(writeAll(pair.theirs.get(), "x", Deadline::in(milliseconds(5000))));
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
    EXPECT_LT(connectTo({"127.0.0.1", port}, Deadline::in(milliseconds(5000)), reason).get(), 0);
    EXPECT_EQ(reason, "127.0.0.1 port " + std::to_string(port) + ": Connection refused");
}

}  // namespace
}  // namespace vexagent
