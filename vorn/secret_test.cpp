// SPDX-License-Identifier: Apache-2.0
#include "vorn/secret.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>

#include "vorn/memory_scan_testing.h"

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

const std::string kOther = "something else that is not short either";

TEST(Secret, HoldsMovesAndForgets) {
    for (const std::string& text : {std::string(), kShort, kLong}) {
        Secret first{std::string_view(text)};
        Secret second(std::move(first));
        EXPECT_EQ(second.text(), text);
        EXPECT_TRUE(first.empty());  // NOLINT: what moving leaves is the point
        Secret third(kOther.c_str());
        third = std::move(second);
        EXPECT_EQ(third.text(), text);
        EXPECT_TRUE(second.empty());  // NOLINT
        third.clear();
        EXPECT_EQ(third.text(), "");
    }
}

TEST(Secret, IsComparedByItsBytes) {
    EXPECT_EQ(Secret("abc"), Secret("abc"));
    EXPECT_NE(Secret("abc"), Secret("abd"));
    EXPECT_NE(Secret("abc"), Secret("ab"));
    EXPECT_NE(Secret(std::string_view("a\0b", 3)), Secret(std::string_view("a\0c", 3)));
    EXPECT_EQ(Secret(), Secret(""));
}

TEST(Secret, ShowsNothingWhenItIsPrinted) {
    EXPECT_EQ(testing::PrintToString(Secret("Hunter2")), "(a secret)");
}

TEST(Secret, KeepsItsBytesAsItGrows) {
    Secret secret("ab");
    secret.resize(4);
    EXPECT_EQ(secret.text(), std::string("ab\0\0", 4));
    secret.resize(100);
    secret.data()[99] = 'z';
    EXPECT_EQ(secret.text(), "ab" + std::string(97, '\0') + "z");
    secret.append(kLong);
    EXPECT_EQ(secret.text(), "ab" + std::string(97, '\0') + "z" + kLong);
    secret.append("");
    EXPECT_EQ(secret.size(), 100 + kLong.size());
}

TEST(Secret, LeavesNothingBehindItsEndWhenItShrinks) {
    Secret secret(kLong.c_str());
    const char* const buffer = secret.data();
    secret.resize(2);
    EXPECT_EQ(secret.text(), "a ");
    ASSERT_EQ(static_cast<const void*>(secret.data()), buffer);
    EXPECT_EQ(std::string(buffer + 2, kLong.size() - 2), std::string(kLong.size() - 2, '\0'));
}

// How often the text stands in the process's memory, beside its disguise.
class SecretInMemory : public testing::TestWithParam<std::size_t> {
  protected:
    int count() { return m_scan.count(m_disguised); }
    // The secret, with nothing of it left beside.
    Secret made() const {
        Secret secret;
        secret.resize(m_disguised.size());
        m_disguised.reveal(secret.data());
        return secret;
    }

  private:
    const test::Disguised m_disguised{GetParam()};
    test::MemoryScan m_scan;
};

TEST_P(SecretInMemory, IsNoMoreThanWhereItIsHeld) {
    Secret first = made();
    EXPECT_EQ(count(), 1);
    Secret second(std::move(first));
    Secret third;
    third = std::move(second);
    EXPECT_EQ(count(), 1);
    third.resize(1000);
    EXPECT_EQ(count(), 1);
    for (int i = 0; i < 1000; ++i) third.append("more");
    EXPECT_EQ(count(), 1);
    third = Secret("another");
    EXPECT_EQ(count(), 0);
    third = made();
    third.clear();
    EXPECT_EQ(count(), 0);
    { const Secret last = made(); }
    EXPECT_EQ(count(), 0);
}

INSTANTIATE_TEST_SUITE_P(Lengths, SecretInMemory, testing::Values(8, 15, 40));

}  // namespace
}  // namespace vorn
