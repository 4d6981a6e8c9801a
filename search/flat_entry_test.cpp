// SPDX-License-Identifier: Apache-2.0
#include "search/flat_entry.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/standin/slapd_standin.h"

namespace {

berval bv(const char* text) {
    return {std::strlen(text), const_cast<char*>(text)};
}

std::vector<std::string> texts(const berval* values) {
    std::vector<std::string> all;
    for (; values->bv_val != nullptr; ++values) all.emplace_back(values->bv_val, values->bv_len);
    return all;
}

TEST(FlatEntry, HoldsWhatTheOriginalHeld) {
    AttributeDescription cn{}, photo{};
    berval names[] = {bv("Ann Lee"), bv(""), {0, nullptr}};
    berval normal[] = {bv("ann lee"), bv(""), {0, nullptr}};
    char bytes[] = {'\0', '\xff', 'x'};
    berval photos[] = {{3, bytes}, {0, nullptr}};
    Attribute second{&photo, photos, photos, 1, SLAP_ATTR_SORTED_VALS, nullptr};
    Attribute first{&cn, names, normal, 2, 0, &second};
    Entry original{};
    original.e_id = 7;
    original.e_name = bv("cn=Ann");
    original.e_nname = bv("cn=ann");
    original.e_attrs = &first;
    original.e_ocflags = SLAP_OC__END;

    SharedEntry copy = flatCopy(original);
    for (char& byte : bytes) byte = '!';
    first.a_next = nullptr;

    EXPECT_EQ(copy->e_id, 7U);
    EXPECT_STREQ(copy->e_name.bv_val, "cn=Ann");
    EXPECT_STREQ(copy->e_nname.bv_val, "cn=ann");
    EXPECT_NE(copy->e_nname.bv_val, original.e_nname.bv_val) << "its own";
    EXPECT_NE(copy->e_name.bv_val, original.e_name.bv_val);
    EXPECT_EQ(copy->e_ocflags, SLAP_OC__END);
    const Attribute* attribute = copy->e_attrs;
    EXPECT_EQ(attribute->a_desc, &cn);
    EXPECT_EQ(attribute->a_numvals, 2U);
    EXPECT_EQ(texts(attribute->a_vals), (std::vector<std::string>{"Ann Lee", ""}));
    EXPECT_EQ(texts(attribute->a_nvals), (std::vector<std::string>{"ann lee", ""}));
    attribute = attribute->a_next;
    EXPECT_EQ(attribute->a_desc, &photo);
    EXPECT_EQ(attribute->a_flags, static_cast<unsigned>(SLAP_ATTR_SORTED_VALS));
    EXPECT_EQ(texts(attribute->a_vals), (std::vector<std::string>{std::string("\0\xff"
                                                                              "x",
                                                                              3)}));
    EXPECT_EQ(attribute->a_nvals, attribute->a_vals) << "where the original has one array for both";
    EXPECT_EQ(attribute->a_next, nullptr);
}

// In words, rounded up: the records first, then each text with its NUL.
TEST(FlatEntry, TakesNoMoreThanItNeeds) {
    AttributeDescription cn{};
    for (std::size_t length = 0; length < 20; ++length) {
        std::string text(length, 'x');
        berval values[] = {{length, text.data()}, {0, nullptr}};
        Attribute only{&cn, values, values, 1, 0, nullptr};
        Entry original{};
        original.e_name = bv("cn=Ann");
        original.e_attrs = &only;
        const std::size_t needed =
            sizeof(Entry) + sizeof(Attribute) + 2 * sizeof(berval) + sizeof "cn=Ann" + length + 1;
        EXPECT_EQ(flatSize(original), (needed + 7) / 8 * 8) << length;
    }
}

TEST(FlatEntry, AnEntryWithoutAttributes) {
    Entry original{};
    original.e_name = bv("");
    const SharedEntry copy = flatCopy(original);
    EXPECT_STREQ(copy->e_name.bv_val, "");
    EXPECT_EQ(copy->e_nname.bv_val, nullptr);
    EXPECT_EQ(copy->e_nname.bv_len, 0U);
    EXPECT_EQ(copy->e_attrs, nullptr);
}

}  // namespace
