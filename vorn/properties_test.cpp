// SPDX-License-Identifier: Apache-2.0
#include "vorn/properties.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <ostream>
#include <thread>

#include "vorn/temporary_folder_testing.h"

namespace vorn {
namespace {

using namespace std::string_literals;
using test::TemporaryFolder;
using Entries = std::map<std::string, std::string>;

Entries parsed(std::string_view text) {
    Properties properties;
    properties.parse(text, "t");
    const auto map = properties.getMap("");
    return Entries(map->begin(), map->end());
}

std::string complaint(std::string_view text) {
    try {
        Properties().parse(text, "map.conf");
    } catch (const PropertiesException& failure) {
        EXPECT_EQ(failure.code(), 0);
        return failure.what();
    }
    return "none";
}

struct LoadFailure {
    std::string what;
    int code;
};

LoadFailure loadFailure(const std::string& file) {
    try {
        Properties().load(file, false);
    } catch (const PropertiesException& failure) {
        return {failure.what(), failure.code()};
    }
    return {"none", -1};
}

struct SyntaxCase {
    const char* name;
    std::string text;
    Entries entries;
};

void PrintTo(const SyntaxCase& entry, std::ostream* out) {
    *out << entry.name;
}

class PropertiesSyntax : public testing::TestWithParam<SyntaxCase> {};

TEST_P(PropertiesSyntax, IsReadAs) {
    EXPECT_EQ(parsed(GetParam().text), GetParam().entries);
}

INSTANTIATE_TEST_SUITE_P(
    Properties, PropertiesSyntax,
    testing::Values(
        SyntaxCase{"Nothing", "", {}}, SyntaxCase{"EqualsSign", "key=value\n", {{"key", "value"}}},
        SyntaxCase{"Colon", "key:value\n", {{"key", "value"}}},
        SyntaxCase{"Blank", "key value\n", {{"key", "value"}}},
        SyntaxCase{"Tab", "key\tvalue\n", {{"key", "value"}}},
        SyntaxCase{"BlanksAround", " \t\fkey \t= \f value\n", {{"key", "value"}}},
        SyntaxCase{"OneSeparatorOnly", "a==b\nc = :d\ne : = f\n", {{"a", "=b"}, {"c", ":d"}, {"e", "= f"}}},
        SyntaxCase{"NoNewlineAtTheEnd", "key = value", {{"key", "value"}}},
        SyntaxCase{"TrailingBlanksStay", "key = value \t\n", {{"key", "value \t"}}},
        SyntaxCase{"KeyAlone", "key\nother =\nthird :  \n", {{"key", ""}, {"other", ""}, {"third", ""}}},
        SyntaxCase{"Comments", "# a=1\n  ! b=2\nc=3 # not one\n", {{"c", "3 # not one"}}},
        SyntaxCase{"CommentsAreNotJoined", "# a\\\nb=2\n", {{"b", "2"}}},
        SyntaxCase{"EmptyLines", "\n \t\n\r\n\ra=1\n\n", {{"a", "1"}}},
        SyntaxCase{"LineEnds", "a=1\rb=2\r\nc=3\nd=4", {{"a", "1"}, {"b", "2"}, {"c", "3"}, {"d", "4"}}},
        SyntaxCase{"JoinedValue", "a = one,\\\n   \t two,\\\r\n three\n", {{"a", "one,two,three"}}},
        SyntaxCase{"JoinedKey", "ke\\\n  y = v\n", {{"key", "v"}}},
        SyntaxCase{"JoinedAroundTheSeparator", "key\\\n  =\\\n  v\n", {{"key", "v"}}},
        SyntaxCase{"JoinedWithAnEmptyLine", "a = b\\\n\nc = d\n", {{"a", "b"}, {"c", "d"}}},
        SyntaxCase{"JoinedWithWhatLooksLikeAComment", "a = b\\\n# c\n", {{"a", "b# c"}}},
        SyntaxCase{"JoinAtTheEnd", "a = b\\", {{"a", "b"}}},
        SyntaxCase{"JoinOnly", "\\\n\\\n \\\na = b\n", {{"a", "b"}}},
        SyntaxCase{"EvenBackslashesDoNotJoin", "a = b\\\\\nc = d\n", {{"a", "b\\"}, {"c", "d"}}},
        SyntaxCase{"OddBackslashesJoin", "a = b\\\\\\\nc\n", {{"a", "b\\c"}}},
        SyntaxCase{"Escapes", "a = \\t\\n\\r\\f\\\\\\q\\\"\n", {{"a", "\t\n\r\f\\q\""}}},
        SyntaxCase{"EscapedKey", "a\\ b\\=c\\:d\\#e = f\n", {{"a b=c:d#e", "f"}}},
        SyntaxCase{"EscapedCommentSign", "\\#a = b\n\\!c = d\n", {{"#a", "b"}, {"!c", "d"}}},
        SyntaxCase{"EscapedLeadingBlankOfAValue", "a = \\  b\n", {{"a", "  b"}}},
        SyntaxCase{"EscapedUtf8", "a = \\\xC3\xA9\n", {{"a", "\xC3\xA9"}}},
        SyntaxCase{"UnicodeEscapes",
                   "\\u0041 = \\u00e9\\u20AC\\uFFFD\n",
                   {{"A", "\xC3\xA9\xE2\x82\xAC\xEF\xBF\xBD"}}},
        SyntaxCase{"SurrogatePair", "a = \\uD83D\\uDE00\n", {{"a", "\xF0\x9F\x98\x80"}}},
        SyntaxCase{"FirstAndLastSurrogatePair",
                   "a = \\uD800\\uDC00\\uDBFF\\uDFFF\n",
                   {{"a", "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"}}},
        SyntaxCase{"SurrogatePairAcrossAJoin", "a = \\uD83D\\\n \\uDE00\n", {{"a", "\xF0\x9F\x98\x80"}}},
        SyntaxCase{"EscapedSeparatorSignsByNumber", "a\\u003db = c\n", {{"a=b", "c"}}},
        SyntaxCase{"Utf8", "\xC3\x85se = \xF0\x9F\x98\x80\n", {{"\xC3\x85se", "\xF0\x9F\x98\x80"}}},
        SyntaxCase{"ByteOrderMark", "\xEF\xBB\xBF# x\na = b\n", {{"a", "b"}}},
        SyntaxCase{"LastValueCounts", "a = 1\nb = 2\nA = 3\n", {{"a", "3"}, {"b", "2"}}}),
    [](const auto& entry) { return std::string(entry.param.name); });

struct ErrorCase {
    const char* name;
    std::string text;
    const char* complaint;
};

void PrintTo(const ErrorCase& entry, std::ostream* out) {
    *out << entry.name;
}

class PropertiesErrors : public testing::TestWithParam<ErrorCase> {};

TEST_P(PropertiesErrors, AreReported) {
    EXPECT_EQ(complaint(GetParam().text), GetParam().complaint);
}

constexpr const char* kNotUtf8 = "map.conf:1: text that is not UTF-8";
constexpr const char* kBrokenEscape = "map.conf:1: \\u without four hexadecimal digits";
constexpr const char* kUnpaired = "map.conf:1: an unpaired surrogate";

INSTANTIATE_TEST_SUITE_P(
    Properties, PropertiesErrors,
    testing::Values(ErrorCase{"EqualsWithoutKey", "a = b\n = c\n", "map.conf:2: a line without a key"},
                    ErrorCase{"ColonWithoutKey", "\r\n\r\n:c\r\n", "map.conf:3: a line without a key"},
                    ErrorCase{"NulInAValue", "a = \0\n"s, "map.conf:1: a NUL byte"},
                    ErrorCase{"NulInAComment", "\n# \0\n"s, "map.conf:2: a NUL byte"},
                    ErrorCase{"NulBehindABackslash", "a = \\\0\n"s, "map.conf:1: a NUL byte"},
                    ErrorCase{"NulAsEscape", "a = \\u0000\n", "map.conf:1: \\u0000 stands for a NUL byte"},
                    ErrorCase{"InAJoinedLine", "a = b\\\n  c\\\n \\u12\n",
                              "map.conf:3: \\u without four hexadecimal digits"},
                    ErrorCase{"ShortEscape", "a = \\u12\n", kBrokenEscape},
                    ErrorCase{"EscapeCutByTheEnd", "a = \\u12", kBrokenEscape},
                    ErrorCase{"EscapeOfOtherLetters", "a = \\u12g4\n", kBrokenEscape},
                    ErrorCase{"EscapeOfCapitalU", "a = \\U0041 \\u 041\n", kBrokenEscape},
                    ErrorCase{"HighSurrogateAlone", "a = \\ud83d\n", kUnpaired},
                    ErrorCase{"HighSurrogateTwice", "a = \\ud83d\\ud83d\n", kUnpaired},
                    ErrorCase{"HighSurrogateAndALetter", "a = \\ud83d\\u0041\n", kUnpaired},
                    ErrorCase{"LowSurrogateAlone", "a = \\ude00\n", kUnpaired},
                    ErrorCase{"Latin1", "a = caf\xe9\n", kNotUtf8},
                    ErrorCase{"Latin1InAComment", "# caf\xe9\n", kNotUtf8},
                    ErrorCase{"Overlong", "a = \xC0\xAF\n", kNotUtf8},
                    ErrorCase{"OverlongOfThree", "a = \xE0\x80\xAF\n", kNotUtf8},
                    ErrorCase{"OverlongOfFour", "a = \xF0\x80\x80\xAF\n", kNotUtf8},
                    ErrorCase{"SurrogateBytes", "a = \xED\xA0\x80\n", kNotUtf8},
                    ErrorCase{"BeyondUnicode", "a = \xF4\x90\x80\x80\n", kNotUtf8},
                    ErrorCase{"CutSequence", "a = \xF0\x9F\x98", kNotUtf8},
                    ErrorCase{"LoneFollower", "a = \x80\n", kNotUtf8},
                    ErrorCase{"NeverABeginning", "a = \xFF\n", kNotUtf8}),
    [](const auto& entry) { return std::string(entry.param.name); });

TEST(Properties, ATextThatFailsAddsNothing) {
    Properties properties;
    properties.parse("a = 1\n", "first");
    EXPECT_THROW(properties.parse("a = 2\nb = 2\n= 3\n", "second"), PropertiesException);
    EXPECT_EQ(properties.size(), 1u);
    EXPECT_EQ(properties.get("a", ""), "1");
    EXPECT_EQ(properties.origin("a"), "first:1");
}

TEST(Properties, KeysIgnoreCaseAndValuesKeepIt) {
    Properties properties;
    properties.parse("posixAccount.UID = sAMAccountName\n", "t");
    EXPECT_EQ(properties.get("POSIXACCOUNT.uid", "?"), "sAMAccountName");
    EXPECT_EQ(properties.find("posixAccount"), std::nullopt);
    EXPECT_EQ(properties.get("posixAccount", "fallback"), "fallback");
}

TEST(Properties, AnEmptyValueIsNotAMissingOne) {
    Properties properties;
    properties.parse("posixAccount.gecos =\n", "t");
    EXPECT_EQ(properties.find("posixAccount.gecos"), std::optional<std::string>(""));
    EXPECT_EQ(properties.get("posixAccount.gecos", "fallback"), "");
}

TEST(Properties, GetMapTakesTheKeysWithAPrefixWhole) {
    Properties properties;
    properties.parse("posixAccount=User\nPosixAccount.uid=a\nposixaccount.Cn=b\nposixAccounts.x=c\nposix=d\n",
                     "t");
    const auto map = properties.getMap("posixAccount.");
    EXPECT_EQ(Entries(map->begin(), map->end()),
              (Entries{{"PosixAccount.uid", "a"}, {"posixaccount.Cn", "b"}}));
    EXPECT_TRUE(map->contains("POSIXACCOUNT.UID")) << "the copy compares keys as the table does";
    EXPECT_EQ(properties.getMap("")->size(), 5u);
    const auto none = properties.getMap("zz");
    ASSERT_NE(none, nullptr);
    EXPECT_TRUE(none->empty());
}

TEST(Properties, OriginIsTheLineOfTheKeyThatCounts) {
    Properties properties;
    properties.parse("\na = x\\\n y\nb = 1\nA = 2\n", "f.conf");
    EXPECT_EQ(properties.origin("b"), "f.conf:4");
    EXPECT_EQ(properties.origin("a"), "f.conf:5");
    EXPECT_EQ(properties.origin("c"), "");
}

TEST(Properties, SeveralTextsAddUp) {
    Properties properties;
    EXPECT_TRUE(properties.empty());
    properties.parse("a = 1\nb = 1\n", "one");
    properties.parse("B = 2\nc = 2\n", "two");
    EXPECT_EQ(properties.size(), 3u);
    EXPECT_EQ(properties.get("b", ""), "2");
    EXPECT_EQ(properties.origin("b"), "two:1");
    EXPECT_EQ(properties.origin("a"), "one:1");
}

TEST(Properties, AssignReplacesEverything) {
    Properties properties;
    properties.parse("a = 1\n", "one");
    Properties other;
    other.parse("b = 2\n", "two");
    properties.assign(std::move(other));
    EXPECT_EQ(properties.find("a"), std::nullopt);
    EXPECT_EQ(properties.get("b", ""), "2");
    EXPECT_EQ(properties.origin("a"), "");
}

TEST(Properties, DumpWritesToStandardError) {
    Properties properties;
    properties.parse("b = 2\nA: x y\n", "t");
    testing::internal::CaptureStderr();
    properties.dump();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "A = x y\nb = 2\n");
}

TEST(PropertiesFile, IsReadWhole) {
    const TemporaryFolder folder;
    std::string text;
    for (int i = 0; i < 5000; ++i) text += "key" + std::to_string(i) + " = " + std::string(20, 'v') + "\n";
    Properties properties;
    properties.load(folder.write("big.conf", text), false);
    EXPECT_EQ(properties.size(), 5000u);
    EXPECT_EQ(properties.origin("key4999"), folder.file("big.conf") + ":5000");
}

TEST(PropertiesFile, MissingIsAnErrorUnlessOptional) {
    const TemporaryFolder folder;
    const std::string file = folder.file("none.conf");
    const LoadFailure failure = loadFailure(file);
    EXPECT_EQ(failure.what, file + ": No such file or directory");
    EXPECT_EQ(failure.code, ENOENT);
    Properties properties;
    EXPECT_NO_THROW(properties.load(file, true));
    EXPECT_TRUE(properties.empty());
}

TEST(PropertiesFile, OptionalDoesNotExcuseMalformedText) {
    const TemporaryFolder folder;
    EXPECT_THROW(Properties().load(folder.write("bad.conf", "=\n"), true), PropertiesException);
    EXPECT_THROW(Properties().load(folder.path(), true), PropertiesException);
}

TEST(PropertiesFile, MalformedNamesFileAndLine) {
    const TemporaryFolder folder;
    const std::string file = folder.write("bad.conf", "a = 1\n\n= 2\n");
    const LoadFailure failure = loadFailure(file);
    EXPECT_EQ(failure.what, file + ":3: a line without a key");
    EXPECT_EQ(failure.code, 0);
}

TEST(PropertiesFile, DirectoryIsAnError) {
    const TemporaryFolder folder;
    const LoadFailure failure = loadFailure(folder.path());
    EXPECT_EQ(failure.what, folder.path() + ": Is a directory");
    EXPECT_EQ(failure.code, EISDIR);
}

TEST(PropertiesFile, PipeIsAnErrorAndNotAWait) {
    const TemporaryFolder folder;
    const std::string file = folder.file("pipe");
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    EXPECT_EQ(loadFailure(file).what, file + ": not a regular file");
}

TEST(PropertiesFile, EndlessOrHugeIsAnError) {
    EXPECT_EQ(loadFailure("/dev/zero").what, "/dev/zero: larger than 16 MiB");
    EXPECT_EQ(loadFailure("/dev/null").what, "none");
    const TemporaryFolder folder;
    const std::string line = "#" + std::string((1 << 20) - 2, 'x') + "\n";
    std::string text;
    for (int i = 0; i < 16; ++i) text += line;
    EXPECT_EQ(loadFailure(folder.write("most.conf", text)).what, "none");
    const std::string file = folder.write("more.conf", text + "\n");
    EXPECT_EQ(loadFailure(file).what, file + ": larger than 16 MiB");
}

TEST(Properties, ServesReadersWhileItIsFilled) {
    Properties properties;
    properties.parse("key = a\n", "t");
    std::thread writer([&] {
        for (int i = 0; i < 500; ++i) properties.parse(i % 2 ? "key = a\n" : "key = bb\nother = 1\n", "t");
    });
    int odd = 0;
    for (int i = 0; i < 2000; ++i) {
        const std::string value = properties.get("key", "");
        if (value != "a" && value != "bb") ++odd;
    }
    writer.join();
    EXPECT_EQ(odd, 0);
    EXPECT_EQ(properties.size(), 2u);
}

}  // namespace
}  // namespace vorn
