// SPDX-License-Identifier: Apache-2.0
#include "agent/server/incoming_frame.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "vorn/descriptor.h"

namespace vexagent {
namespace {

using Progress = IncomingFrame::Progress;

class IncomingFrameTest : public ::testing::Test {
  protected:
    void SetUp() override {
        int ends[2];
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        m_client = vorn::Descriptor(ends[0]);
        m_agent = vorn::Descriptor(ends[1]);
    }

    // The length is sent with its lowest byte first.
    static std::string withLength(const std::string& body, std::size_t length) {
        std::string bytes;
        for (std::size_t i = 0; i < vex::wire::kLengthBytes; ++i)
            bytes += static_cast<char>(length >> 8 * i & 0xFF);
        return bytes + body;
    }
    static std::string frame(const std::string& body) { return withLength(body, body.size()); }

    void send(const std::string& bytes) {
        ASSERT_EQ(::send(m_client.get(), bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    }
    Progress read() { return m_frame.read(m_agent.get()); }
    std::string body() const { return {m_frame.bytes().begin(), m_frame.bytes().end()}; }

    vorn::Descriptor m_client{-1};
    vorn::Descriptor m_agent{-1};
    IncomingFrame m_frame;
};

TEST_F(IncomingFrameTest, IsWholeAtOnceWhenAllOfItIsThere) {
    send(frame("request"));
    EXPECT_EQ(read(), Progress::Whole);
    EXPECT_EQ(body(), "request");
    EXPECT_EQ(m_frame.length(), 7u);
}

TEST_F(IncomingFrameTest, MayHaveOneByte) {
    send(frame("x"));
    EXPECT_EQ(read(), Progress::Whole);
    EXPECT_EQ(body(), "x");
}

TEST_F(IncomingFrameTest, EndsWhereNothingCanBeRead) {
    EXPECT_EQ(m_frame.read(-1), Progress::Ended);
}

TEST_F(IncomingFrameTest, ComesByteByByte) {
    const std::string bytes = frame("slow");
    EXPECT_EQ(read(), Progress::Partly);
    EXPECT_FALSE(m_frame.begun());
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        send(bytes.substr(i, 1));
        EXPECT_EQ(read(), i + 1 < bytes.size() ? Progress::Partly : Progress::Whole);
        EXPECT_TRUE(m_frame.begun());
    }
    EXPECT_EQ(body(), "slow");
}

TEST_F(IncomingFrameTest, LeavesTheNextOneInTheSocket) {
    send(frame("first") + frame("second"));
    EXPECT_EQ(read(), Progress::Whole);
    EXPECT_EQ(body(), "first");
    m_frame.clear();
    EXPECT_FALSE(m_frame.begun());
    EXPECT_EQ(m_frame.length(), 0u);
    EXPECT_EQ(read(), Progress::Whole);
    EXPECT_EQ(body(), "second");
}

TEST_F(IncomingFrameTest, NoFrameIsEmpty) {
    send(withLength("", 0));
    EXPECT_EQ(read(), Progress::BadLength);
}

TEST_F(IncomingFrameTest, TheLongestIsReadAndOneByteMoreIsBadLength) {
    send(withLength("", vex::wire::kMaxRequestBytes));
    EXPECT_EQ(read(), Progress::Partly);
    m_frame.clear();
    send(withLength("", vex::wire::kMaxRequestBytes + 1));
    EXPECT_EQ(read(), Progress::BadLength);
    EXPECT_EQ(m_frame.length(), vex::wire::kMaxRequestBytes + 1);
}

TEST_F(IncomingFrameTest, GrowsWithWhatIsThereAndNotWithWhatIsClaimed) {
    send(withLength("a little", vex::wire::kMaxRequestBytes));
    EXPECT_EQ(read(), Progress::Partly);
    EXPECT_EQ(m_frame.bytes().size(), 65536u);
}

TEST_F(IncomingFrameTest, OfManyStepsIsWhole) {
    std::string large;
    for (int i = 0; large.size() < 300'000; ++i) large += std::to_string(i);
    const std::string bytes = frame(large);
    Progress progress = Progress::Partly;
    for (std::size_t sent = 0; sent < bytes.size(); sent += 50'000) {
        ASSERT_EQ(progress, Progress::Partly);
        send(bytes.substr(sent, 50'000));
        progress = read();
    }
    EXPECT_EQ(progress, Progress::Whole);
    EXPECT_TRUE(body() == large);
}

TEST_F(IncomingFrameTest, EndsWithItsClient) {
    send(frame("half of it").substr(0, 8));
    m_client = vorn::Descriptor(-1);
    for (const int before : {EAGAIN, ECONNRESET}) {
        errno = before;
        EXPECT_EQ(read(), Progress::Ended) << "whatever failed before";
    }
}

TEST_F(IncomingFrameTest, IsBrokenWhenItsClientLeftWithoutReadingAnAnswer) {
    ASSERT_EQ(::send(m_agent.get(), "answer", 6, 0), 6);
    m_client = vorn::Descriptor(-1);
    EXPECT_EQ(read(), Progress::Broken);
}

}  // namespace
}  // namespace vexagent
