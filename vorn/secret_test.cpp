#include "vorn/secret.h"

#include <gtest/gtest.h>

#include <cstring>

namespace vorn {
namespace {

const std::string kShort = "Hunter2";
const std::string kLong = "a pass phrase that no short-string buffer can hold";

// Everything that the object itself holds, the short-string buffer included.
std::string objectBytes(const std::string& text) {
    return std::string(reinterpret_cast<const char*>(&text), sizeof(std::string));
}

std::string wholeBuffer(const std::string& text) {
    return std::string(text.data(), text.capacity());
}

TEST(Wipe, OverwritesMemoryWithZeros) {
    char memory[] = "secret!";
    wipe(memory, 6);
    EXPECT_EQ(std::string(memory, sizeof memory), std::string("\0\0\0\0\0\0!\0", 8));
    wipe(nullptr, 0);
}

TEST(Wipe, EmptiesAShortStringAndItsBuffer) {
    std::string text = kShort;
    wipe(text);
    EXPECT_TRUE(text.empty());
    EXPECT_EQ(wholeBuffer(text), std::string(text.capacity(), '\0'));
}

TEST(Wipe, OverwritesALongStringUpToItsCapacity) {
    std::string text = kLong;
    const char* const buffer = text.data();
    text.resize(5);  // the rest of the phrase is still behind the end
    wipe(text);
    EXPECT_TRUE(text.empty());
    ASSERT_TRUE(text.data() == buffer) << "a freed buffer could not be looked at";
    EXPECT_EQ(wholeBuffer(text), std::string(text.capacity(), '\0'));
}

TEST(Wipe, OverwritesWhatAGrowingStringLeftInItsShortBuffer) {
    std::string text = "12345678SECRET!";
    text.append(100, 'x');
    ASSERT_NE(objectBytes(text).find("SECRET"), std::string::npos)
        << "this library leaves nothing behind, so the test shows nothing";
    wipe(text);
    EXPECT_EQ(objectBytes(text).find("SECRET"), std::string::npos);
    EXPECT_TRUE(text.empty());
}

TEST(Wipe, LeavesTheStringUsable) {
    std::string text = kLong;
    wipe(text);
    text = kLong;
    EXPECT_EQ(text, kLong);
}

}  // namespace
}  // namespace vorn
