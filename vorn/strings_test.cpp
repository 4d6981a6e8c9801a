// SPDX-License-Identifier: Apache-2.0
#include "vorn/strings.h"

#include <gtest/gtest.h>

#include <climits>
#include <locale>
#include <ostream>
#include <set>
#include <stdexcept>

namespace vorn {
namespace {

using namespace std::string_literals;

TEST(Strings, FoldAsciiLettersOnly) {
    EXPECT_EQ(lower("AZaz09 [@`{"), "azaz09 [@`{");
    EXPECT_EQ(upper("AZaz09 [@`{"), "AZAZ09 [@`{");
    EXPECT_EQ(lower("\xC3\x89T\xC3\x89"), "\xC3\x89t\xC3\x89");
    EXPECT_EQ(upper("\xC3\xA9t\xC3\xA9"), "\xC3\xA9T\xC3\xA9");
    EXPECT_EQ(lower("A\0B"s), "a\0b"s);
    EXPECT_EQ(lower(""), "");
}

TEST(Strings, EqualWithoutRegardToCase) {
    EXPECT_TRUE(equalsIgnoreCase("uidNumber", "UIDNUMBER"));
    EXPECT_TRUE(equalsIgnoreCase("", ""));
    EXPECT_FALSE(equalsIgnoreCase("uid", "uidNumber"));
    EXPECT_FALSE(equalsIgnoreCase("@", "`"));
    EXPECT_FALSE(equalsIgnoreCase("[", "{"));
}

TEST(Strings, StartWithoutRegardToCase) {
    EXPECT_TRUE(startsWithIgnoreCase("posixAccount.uid", "POSIXACCOUNT."));
    EXPECT_TRUE(startsWithIgnoreCase("posix", "posix"));
    EXPECT_TRUE(startsWithIgnoreCase("posix", ""));
    EXPECT_FALSE(startsWithIgnoreCase("posi", "posix"));
    EXPECT_FALSE(startsWithIgnoreCase("xposix", "posix"));
}

TEST(StringCaseHash, IsTheSameForTextsThatDifferInCaseOnly) {
    const StringCaseHash hash;
    EXPECT_EQ(hash("posixAccount.uid"), hash("POSIXACCOUNT.UID"));
    EXPECT_NE(hash("posixAccount.uid"), hash("posixAccount.uie"));
    EXPECT_NE(hash(""), hash("a"));
    EXPECT_NE(hash("["
                   "a"),
              hash("{"
                   "a"))
        << "letters only";
    EXPECT_NE(hash("\xC3\x84"), hash("\xC3\xA4")) << "ASCII letters only";
    EXPECT_TRUE(StringCaseEqual()("Uid", "uID"));
    EXPECT_FALSE(StringCaseEqual()("uid", "uid "));
}

TEST(Strings, OrderIsThatOfLowerCaseBytes) {
    const StringCaseLessThan less;
    EXPECT_TRUE(less("a", "B"));
    EXPECT_FALSE(less("B", "a"));
    EXPECT_FALSE(less("KEY", "key"));
    EXPECT_FALSE(less("key", "KEY"));
    EXPECT_TRUE(less("key", "keys"));
    EXPECT_FALSE(less("keys", "key"));
    EXPECT_TRUE(less("", "a"));
    EXPECT_TRUE(less("_", "A")) << "letters count as lower case, which stands behind the underline";
    EXPECT_TRUE(less("z", "\xC3\xA9")) << "bytes above 127 stand behind all letters";
    const std::set<std::string, StringCaseLessThan> names = {"uid", "UID", "Uid"};
    EXPECT_EQ(names.size(), 1u);
    EXPECT_TRUE(names.contains(std::string_view("uID")));
}

TEST(Strings, Itoa) {
    EXPECT_EQ(itoa(0, 10), "0");
    EXPECT_EQ(itoa(-42, 10), "-42");
    EXPECT_EQ(itoa(255, 16), "ff");
    EXPECT_EQ(itoa(35, 36), "z");
    EXPECT_EQ(itoa(8, 2), "1000");
    EXPECT_EQ(itoa(LONG_MIN, 10), "-9223372036854775808");
    EXPECT_EQ(itoa(LONG_MIN, 2), "-1" + std::string(63, '0'));
    EXPECT_THROW(itoa(1, 1), std::invalid_argument);
    EXPECT_THROW(itoa(1, 37), std::invalid_argument);
}

TEST(Strings, StringInList) {
    const std::vector<std::string> list = {"uid", "cn"};
    EXPECT_TRUE(stringInList(list, "cn", true));
    EXPECT_FALSE(stringInList(list, "CN", true));
    EXPECT_TRUE(stringInList(list, "CN", false));
    EXPECT_FALSE(stringInList(list, "c", false));
    EXPECT_FALSE(stringInList({}, "", false));
}

struct PrintableCase {
    const char* name;
    std::string value;
    bool safe;
};

void PrintTo(const PrintableCase& entry, std::ostream* out) {
    *out << entry.name;
}

class IsPrintable : public testing::TestWithParam<PrintableCase> {};

TEST_P(IsPrintable, Holds) {
    EXPECT_EQ(isprintable(GetParam().value), GetParam().safe);
}

INSTANTIATE_TEST_SUITE_P(
    Strings, IsPrintable,
    testing::Values(PrintableCase{"Empty", "", true}, PrintableCase{"Text", "Jane Doe <j@x.org>: 1", true},
                    PrintableCase{"LeadingBlank", " x", false}, PrintableCase{"LeadingColon", ":x", false},
                    PrintableCase{"LeadingLess", "<x", false}, PrintableCase{"LeadingGreater", ">x", true},
                    PrintableCase{"TrailingBlank", "x ", false}, PrintableCase{"OnlyBlank", " ", false},
                    PrintableCase{"TrailingColon", "x:", true}, PrintableCase{"LineFeed", "a\nb", false},
                    PrintableCase{"CarriageReturn", "a\rb", false}, PrintableCase{"Nul", "a\0b"s, false},
                    PrintableCase{"Tab", "a\tb", false}, PrintableCase{"Escape", "a\x1b", false},
                    PrintableCase{"Tilde", "a~", true}, PrintableCase{"Delete", "a\x7f", false},
                    PrintableCase{"Latin1", "caf\xe9", false}, PrintableCase{"Utf8", "caf\xc3\xa9", false}),
    [](const auto& entry) { return std::string(entry.param.name); });

TEST(Strings, PrintableWritesOtherBytesAsHexDigits) {
    EXPECT_EQ(printable("Jane Doe"), "Jane Doe");
    EXPECT_EQ(printable("a\nb\0c"s), "a\\0ab\\00c");
    EXPECT_EQ(printable("\xff\x7f~ "), "\\ff\\7f~ ");
    EXPECT_EQ(printable("back\\slash"), "back\\5cslash");
    EXPECT_EQ(printable(""), "");
}

}  // namespace
}  // namespace vorn
