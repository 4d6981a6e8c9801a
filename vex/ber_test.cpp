// SPDX-License-Identifier: Apache-2.0
// The BER functions of vex/vex.h, beside those of liblber.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "vex/vex.h"

namespace {

struct alignas(void*) Space {  // as large as liblber asks for
    char bytes[256 * sizeof(void*)];
};

int given, released;

void* give(ber_len_t size, void*) {
    ++given;
    return std::malloc(size);
}
void* giveZeroed(ber_len_t count, ber_len_t size, void*) {
    ++given;
    return std::calloc(count, size);
}
void* giveAgain(void* memory, ber_len_t size, void*) {
    if (!memory) ++given;
    return std::realloc(memory, size);
}
void release(void* memory, void*) {
    if (memory) ++released;
    std::free(memory);
}

// Counts what liblber takes and gives back; it asks for these once in a process.
struct Ber : testing::Test {
    static void SetUpTestSuite() {
        static BerMemoryFunctions functions{give, giveZeroed, giveAgain, release};
        ASSERT_EQ(ber_set_option(nullptr, LBER_OPT_MEMORY_FNS, &functions), LBER_OPT_SUCCESS);
    }
    Ber() { given = released = 0; }
    ~Ber() override { EXPECT_EQ(given, released) << "all memory is given back"; }

    Space space;
    BerElement* const ber = reinterpret_cast<BerElement*>(&space);
};

TEST_F(Ber, EncodesAsLiblberDoes) {
    berval cookie{2, const_cast<char*>("ab")}, mine{}, theirs{};
    vex_ber_init2(ber, nullptr, LBER_USE_DER);
    EXPECT_GE(vex_ber_printf(ber, "{iO}", 5, &cookie), 0);
    ASSERT_EQ(vex_ber_flatten2(ber, &mine, 1), 0);
    vex_ber_free_buf(ber);
    EXPECT_EQ(std::string(mine.bv_val, mine.bv_len), std::string("0\x07\x02\x01\x05\x04\x02"
                                                                 "ab",
                                                                 9));

    Space other;
    auto* reference = reinterpret_cast<BerElement*>(&other);
    ber_init2(reference, nullptr, LBER_USE_DER);
    EXPECT_GE(ber_printf(reference, "{iO}", 5, &cookie), 0);
    ASSERT_EQ(ber_flatten2(reference, &theirs, 1), 0);
    ber_free_buf(reference);
    EXPECT_EQ(std::string(mine.bv_val, mine.bv_len), std::string(theirs.bv_val, theirs.bv_len));
    vex_ber_memfree(mine.bv_val);
    ber_memfree(theirs.bv_val);
}

TEST_F(Ber, TheAnswerIsThatForTheLastLetter) {
    vex_ber_init2(ber, nullptr, LBER_USE_DER);
    EXPECT_EQ(vex_ber_printf(ber, ""), 0);
    EXPECT_GT(vex_ber_printf(ber, "i", 5), 0);
    EXPECT_EQ(vex_ber_printf(ber, "{i", 5), 3);
    vex_ber_free_buf(ber);
}

TEST_F(Ber, AfterAFailureNothingMoreIsWritten) {
    vex_ber_init2(ber, nullptr, LBER_USE_DER);
    EXPECT_EQ(vex_ber_printf(ber, "?i", 5), -1);
    berval value{};
    EXPECT_EQ(vex_ber_flatten2(ber, &value, 0), 0);
    EXPECT_EQ(value.bv_len, 0u);
    vex_ber_free_buf(ber);
}

TEST_F(Ber, MemoryComesZeroed) {
    auto* memory = static_cast<char*>(vex_ber_memcalloc(3, 5));
    EXPECT_EQ(std::string(memory, 15), std::string(15, '\0'));
    vex_ber_memfree(memory);
}

}  // namespace
