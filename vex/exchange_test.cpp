// SPDX-License-Identifier: Apache-2.0
// Which responses are read at all.
#include "vex/exchange.h"

#include <gtest/gtest.h>

#include "vex/scripted_agent_testing.h"
#include "vex/wire.h"

namespace vextest {
namespace {

using flatbuffers::FlatBufferBuilder;
namespace wire = vex::wire;

bool isSound(const std::string& bytes) {
    return vex::isSoundResponse({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()});
}

TEST(AResponse, HasNoMoreObjectsThanABatch) {
    Reply reply;
    reply.objects.assign(wire::kBatchObjects, packed(person("ann")));
    EXPECT_TRUE(isSound(response(1, reply)));
    reply.objects.push_back(reply.objects.front());
    EXPECT_FALSE(isSound(response(1, reply)));
}

// A response whose names are all of them one text.
std::string withNames(std::size_t count, const std::string& name) {
    FlatBufferBuilder builder;
    const auto names = builder.CreateVector(std::vector(count, builder.CreateString(name)));
    wire::ResponseBuilder made(builder);
    made.add_names(names);
    builder.Finish(made.Finish(), wire::kResponseIdentifier);
    return {reinterpret_cast<const char*>(builder.GetBufferPointer()), builder.GetSize()};
}

TEST(AResponse, HasNoMoreNamesThanItHasRoomFor) {
    for (std::size_t count = 1; count < 200; ++count) {
        const std::string bytes = withNames(count, "abcd");
        EXPECT_EQ(isSound(bytes), count * 5 <= bytes.size()) << count << " in " << bytes.size();
    }
    EXPECT_TRUE(isSound(withNames(1000, "abc"))) << "each takes as much as the offset that leads to it";
    EXPECT_FALSE(isSound(withNames(1000, "abcd")));
}

}  // namespace
}  // namespace vextest
