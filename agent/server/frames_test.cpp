// SPDX-License-Identifier: Apache-2.0
#include "agent/server/frames.h"

#include <gtest/gtest.h>

#include <string>

#include "agent/server/frames_testing.h"

namespace vexagent {
namespace {

TEST(Frames, AnObjectCarriesNothingOfTheOneBeforeIt) {
    Answer answer;
    for (int i = 0; i < 3; ++i) answer.objects.push_back({{"name", {std::string(100, 'x')}}});
    const Bytes frame = writeResponse(1, answer);
    const auto* response = flatbuffers::GetSizePrefixedRoot<wire::Response>(frame.data());
    ASSERT_EQ(response->objects()->size(), 3u);
    const auto size = response->objects()->Get(0)->bytes()->size();
    for (const wire::PackedObject* packed : *response->objects()) EXPECT_EQ(packed->bytes()->size(), size);
}

TEST(Frames, AResponseIsOfTheMostBytesAndNoMore) {
    const auto withName = [](std::size_t size) {
        Answer answer;
        answer.names = {std::string(size, 'x')};
        return writeResponse(1, answer);
    };
    const std::size_t around = withName(1000).size() - 1000;
    const std::size_t most = wire::kLengthBytes + wire::kMaxResponseBytes;
    EXPECT_EQ(withName(most - around).size(), most);
    EXPECT_EQ(readReply(withName(most - around + 8)).errText, "the answer is larger than a response may be");
}

}  // namespace
}  // namespace vexagent
