// SPDX-License-Identifier: Apache-2.0
// What DNS says of services.

#include "agent/ad/net/srv.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <functional>
#include <thread>

#include "vorn/descriptor.h"

namespace vexagent {
namespace {

using ::testing::ElementsAre;

std::vector<std::string> targets(const std::vector<SrvRecord>& records) {
    std::vector<std::string> names;
    names.reserve(records.size());
    for (const SrvRecord& record : records) names.push_back(record.target);
    return names;
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

// A record of the type and data about the name that the question is about.
std::string record(std::uint16_t type, const std::string& data) {
    std::string bytes("\xc0\x0c", 2);
    bytes += {static_cast<char>(type >> 8), static_cast<char>(type)};
    bytes += std::string("\0\1\0\0\0\x3c", 6);
    bytes += {static_cast<char>(data.size() >> 8), static_cast<char>(data.size())};
    return bytes + data;
}

// A DNS answer to a question about "x" with these records.
std::string answerOf(const std::vector<std::string>& records) {
    std::string bytes("\0\1\x84\0\0\1", 6);
    const std::size_t count = records.size();
    bytes += {static_cast<char>(count >> 8), static_cast<char>(count), '\0', '\0', '\0', '\0'};
    bytes += std::string("\1x\0\0\x21\0\1", 7);
    for (const std::string& one : records) bytes += one;
    return bytes;
}

std::string answer(std::uint16_t type, const std::string& data) {
    return answerOf({record(type, data)});
}

bool parse(const std::string& bytes, std::vector<SrvRecord>& records) {
    const auto read =
        parseSrvAnswer(reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
    records = read.value_or(std::vector<SrvRecord>());
    return read.has_value();
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

// A service of this host.
std::string service(const std::string& host) {
    return std::string("\0\0\0\0\1\x85", 6) + static_cast<char>(host.size()) + host + std::string(1, '\0');
}

TEST(SrvAnswer, NumbersHaveTwoBytes) {
    std::vector<SrvRecord> records;
    ASSERT_TRUE(parse(answer(33, std::string("\1\2\3\4\5\6\1a\0", 9)), records));
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].priority, 0x0102);
    EXPECT_EQ(records[0].weight, 0x0304);
    EXPECT_EQ(records[0].port, 0x0506);
}

TEST(SrvAnswer, OtherRecordsStandBetweenThoseThatCount) {
    std::vector<SrvRecord> records = {{1, 1, 1, "of the answer before"}};
    ASSERT_TRUE(parse(answerOf({record(33, service("a")), record(1, "1234"), record(33, std::string(7, '\0')),
                                record(33, service("b"))}),
                      records));
    EXPECT_THAT(targets(records), ElementsAre("a", "b"));
    ASSERT_TRUE(parse(answerOf({}), records));
    EXPECT_TRUE(records.empty());
}

TEST(SrvAnswer, ARecordWithoutATargetIsNone) {
    std::vector<SrvRecord> records;
    EXPECT_FALSE(parse(answer(33, std::string(6, '\0')), records));
    EXPECT_FALSE(parse(answer(33, std::string(5, '\0')), records));
    EXPECT_TRUE(parse(answer(33, std::string(7, '\0')), records));
}

TEST(SrvAnswer, HasABound) {
    std::vector<SrvRecord> records;
    ASSERT_TRUE(parse(answerOf(std::vector<std::string>(300, record(33, service("a")))), records));
    EXPECT_EQ(records.size(), 256u);
}

// With weights 10 and 90 the number drawn is one of 0 to 100: up to 10 it is the first.
TEST(SrvOrder, EachIsDrawnAsOftenAsItsWeightSays) {
    const std::vector<SrvRecord> records = {{0, 10, 389, "light"}, {0, 90, 389, "heavy"}};
    const auto first = [&](double drawn) {
        return targets(orderRecords(records, [drawn] { return drawn; }))[0];
    };
    EXPECT_EQ(first(10.9 / 101), "light");
    EXPECT_EQ(first(11.1 / 101), "heavy");
    EXPECT_EQ(first(100.9 / 101), "heavy");
}

TEST(SrvOrder, ThoseLeftAreDrawnAmongThemselves) {
    const std::vector<SrvRecord> records = {
        {1, 5, 389, "later"}, {0, 10, 389, "a"}, {0, 20, 389, "b"}, {0, 70, 389, "c"}};
    std::vector<double> draws = {0.2, 0.1, 0.0, 0.0};
    const auto ordered = orderRecords(records, [&draws] {
        const double drawn = draws.front();
        draws.erase(draws.begin());
        return drawn;
    });
    EXPECT_THAT(targets(ordered), ElementsAre("b", "a", "c", "later"));
    EXPECT_TRUE(draws.empty());
}

// ------------------------------------------------------------------ a name server

// One at a port of loopback that answers each question so, and ends with the test.
class NameServer {
  public:
    using Answer = std::function<std::string(const std::string& question)>;

    explicit NameServer(Answer answer)
        : m_answer(std::move(answer)), m_socket(::socket(AF_INET, SOCK_DGRAM, 0)) {
        m_address.sin_family = AF_INET;
        m_address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof m_address;
        EXPECT_EQ(::bind(m_socket.get(), reinterpret_cast<sockaddr*>(&m_address), size), 0);
        EXPECT_EQ(::getsockname(m_socket.get(), reinterpret_cast<sockaddr*>(&m_address), &size), 0);
        m_thread = std::thread([this] { serve(); });
    }
    ~NameServer() {
        // A message of no bytes is the last one.
        ::sendto(m_socket.get(), "", 0, 0, reinterpret_cast<const sockaddr*>(&m_address), sizeof m_address);
        m_thread.join();
    }
    NameServer(const NameServer&) = delete;
    NameServer& operator=(const NameServer&) = delete;

    const sockaddr_in* address() const { return &m_address; }

  private:
    void serve() {
        for (;;) {
            std::string text(512, '\0');
            sockaddr_in client{};
            socklen_t size = sizeof client;
            const ssize_t got = ::recvfrom(m_socket.get(), text.data(), text.size(), 0,
                                           reinterpret_cast<sockaddr*>(&client), &size);
            if (got <= 0) return;
            text.resize(static_cast<std::size_t>(got));
            const std::string answer = m_answer(text);
            ::sendto(m_socket.get(), answer.data(), answer.size(), 0,
                     reinterpret_cast<const sockaddr*>(&client), size);
        }
    }

    const Answer m_answer;
    const vorn::Descriptor m_socket;
    sockaddr_in m_address{};
    std::thread m_thread;
};

// The answer to a question: a code, how many records it says to hold, and their bytes.
NameServer::Answer answering(char code, char count, const std::string& records) {
    return [=](const std::string& question) {
        const std::size_t end = question.find('\0', 12) + 5;  // behind its name, type and class
        return question.substr(0, 2) + "\x81" + static_cast<char>(0x80 | code) + std::string("\0\1\0", 3) +
               count + std::string(4, '\0') + question.substr(12, end - 12) + records;
    };
}

// A record for the name that was asked for: priority 1, weight 2, port 389.
std::string recordFor(const std::string& target) {
    const std::string data = std::string("\0\1\0\2\x01\x85", 6) + target;
    return std::string("\xc0\x0c\0\x21\0\1\0\0\0\x3c\0", 11) + static_cast<char>(data.size()) + data;
}

// The targets that a name server's answer gives, or the reason.
std::vector<std::string> asked(const NameServer::Answer& answer) {
    const NameServer server(answer);
    const auto records = querySrv("_ldap._tcp.example.com", server.address());
    return records ? targets(*records) : std::vector<std::string>{records.error()};
}

TEST(SrvQuery, GivesWhatANameServerKnows) {
    const NameServer server(
        answering(0, 2, recordFor(std::string("\3dc1\xc0\x17", 6)) + recordFor(std::string("\3dc2\0", 5))));
    const auto records = querySrv("_ldap._tcp.example.com", server.address());
    ASSERT_TRUE(records) << records.error();
    EXPECT_THAT(targets(*records), ElementsAre("dc1.example.com", "dc2"));
    EXPECT_EQ((*records)[0].priority, 1);
    EXPECT_EQ((*records)[0].weight, 2);
    EXPECT_EQ((*records)[0].port, 389);
}

TEST(SrvQuery, SaysWhyThereIsNothing) {
    const std::string name = "_ldap._tcp.example.com: ";
    EXPECT_THAT(asked(answering(3, 0, "")), ElementsAre(name + "Unknown host"));
    EXPECT_THAT(asked(answering(0, 0, "")), ElementsAre(name + "No address associated with name"));
    EXPECT_THAT(asked(answering(0, 1, recordFor(std::string(1, '\0')))),
                ElementsAre(name + "no such service"));
    EXPECT_THAT(asked(answering(0, 1, "x")), ElementsAre(name + "the name server's answer cannot be read"));
}

}  // namespace
}  // namespace vexagent
