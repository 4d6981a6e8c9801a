// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <chrono>

#include "bench/load/histogram.h"
#include "bench/load/messages.h"
#include "bench/load/plan.h"
#include "bench/load/requests.h"

namespace {

using namespace std::string_literals;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

std::string hex(std::string_view bytes) {
    std::string text;
    for (const char byte : bytes) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(byte));
        text += digits;
    }
    return text;
}

TEST(Ber, LengthsTakeAsFewBytesAsTheyCan) {
    EXPECT_EQ(hex(load::element(load::kOctetString, "")), "0400");
    EXPECT_EQ(hex(load::element(load::kOctetString, std::string(127, 'a'))).substr(0, 6), "047f61");
    EXPECT_EQ(hex(load::element(load::kOctetString, std::string(128, 'a'))).substr(0, 8), "04818061");
    EXPECT_EQ(hex(load::element(load::kOctetString, std::string(300, 'a'))).substr(0, 10), "0482012c61");
}

TEST(Ber, NumbersAreNeverNegative) {
    EXPECT_EQ(hex(load::number(load::kInteger, 0)), "020100");
    EXPECT_EQ(hex(load::number(load::kInteger, 127)), "02017f");
    EXPECT_EQ(hex(load::number(load::kInteger, 128)), "02020080");
    EXPECT_EQ(hex(load::number(load::kEnumerated, 0x01000000)), "0a0401000000");
    EXPECT_EQ(load::BerReader("\x02\x02\x00\x80"s).takeNumber(load::kInteger), 128U);
    EXPECT_THROW(load::BerReader("\x02\x01\xff"s).takeNumber(load::kInteger), load::ProtocolError);
    EXPECT_THROW(load::BerReader("\x02\x05\x01\x00\x00\x00\x00"s).takeNumber(load::kInteger),
                 load::ProtocolError);
}

TEST(Ber, AnElementMustBeWholeAndOfItsKind) {
    EXPECT_EQ(load::BerReader("\x04\x02xyz"s).take(load::kOctetString), "xy");
    EXPECT_THROW(load::BerReader("\x04\x03xy"s).take(load::kOctetString), load::ProtocolError);
    EXPECT_THROW(load::BerReader("\x04\x02xy"s).take(load::kSequence), load::ProtocolError);
    EXPECT_THROW(load::BerReader("").take(load::kOctetString), load::ProtocolError);
    EXPECT_THROW(load::elementSize("\x30\x80"s), load::ProtocolError);
    EXPECT_THROW(load::elementSize("\x30\x85"s), load::ProtocolError);
    EXPECT_EQ(load::elementSize("\x30"s), 0U);
    EXPECT_EQ(load::elementSize("\x30\x82\x01"s), 0U);
    EXPECT_EQ(load::elementSize("\x30\x82\x01\x00"s), 260U);
}

TEST(Filter, AsRfc4511EncodesIt) {
    const std::vector<std::pair<const char*, const char*>> cases = {
        {"(uid=ann)", "a30a04037569640403616e6e"},
        {"(uid=*)", "8703756964"},
        {"(uid>=a)",
         "a50804037569640401"
         "61"},
        {"(uid<=a)",
         "a60804037569640401"
         "61"},
        {"(cn=\\28\\2A)", "a3080402636e0402282a"},
        {"(&)", "a000"},
        {"(&(a=b)(!(|(c=*))))",
         "a00f"
         "a306040161040162"
         "a205a1038701"
         "63"},
    };
    for (const auto& [text, encoded] : cases) EXPECT_EQ(hex(load::encodeFilter(text)), encoded) << text;
    for (const char* text : {"", "uid=ann", "(uid=ann", "(uid=ann))", "(=ann)", "(uid)", "(uid=a*b)",
                             "(uid=\\2)", "(uid=\\zz)", "(&(uid=ann)", "(>=a)"}) {
        EXPECT_THROW(load::encodeFilter(text), std::invalid_argument) << text;
    }
}

TEST(Messages, ASearchAsRfc4511HasIt) {
    const load::SearchSpec search{"dc=x", 2, "(uid=*)", {"cn"}};
    EXPECT_EQ(hex(load::message(load::searchRequest(search))),
              "3028"
              "020401000000"
              "6320"
              "040464633d78"
              "0a0102"
              "0a0100"
              "020100"
              "020100"
              "010100"
              "8703756964"
              "3004"
              "0402636e");
}

TEST(Messages, ABindAsRfc4511HasIt) {
    EXPECT_EQ(hex(load::message(load::bindRequest("cn=a", "b"))),
              "3014"
              "020401000000"
              "600c"
              "020103"
              "0404636e3d61"
              "800162");
    EXPECT_EQ(hex(load::unbindMessage()),
              "3008"
              "020401000000"
              "4200");
}

TEST(Messages, AnIdIsWrittenIntoShortAndLongMessages) {
    for (const std::size_t length : {1U, 120U, 200U, 70'000U}) {
        std::string message = load::message(load::bindRequest(std::string(length, 'a'), ""));
        const std::size_t size = message.size();
        load::setMessageId(&message, 0x7f123456);
        load::Reply reply;
        ASSERT_EQ(load::readMessage(message, &reply), size);
        EXPECT_EQ(reply.id, 0x7f123456U);
        EXPECT_EQ(reply.operation, load::kBindRequest);
    }
}

TEST(Messages, AReplyIsReadWhenItIsWhole) {
    const std::string bytes = "\x30\x0c\x02\x01\x07\x65\x07\x0a\x01\x20\x04\x00\x04\x00more"s;
    load::Reply reply;
    for (std::size_t size = 0; size < 14; ++size)
        EXPECT_EQ(load::readMessage(bytes.substr(0, size), &reply), 0U);
    ASSERT_EQ(load::readMessage(bytes, &reply), 14U);
    EXPECT_EQ(reply.id, 7U);
    EXPECT_EQ(reply.operation, load::kSearchResultDone);
    EXPECT_EQ(load::resultCode(reply), 32U);
    EXPECT_EQ(load::pagedCookie(reply), "");
}

TEST(Messages, TheCookieIsFoundAmongTheControls) {
    const std::string other = load::element(load::kSequence, load::element(load::kOctetString, "1.2.3"));
    const std::string page = load::element(
        load::kSequence, load::number(load::kInteger, 0) + load::element(load::kOctetString, "biscuit"));
    const std::string paged = load::element(
        load::kSequence, load::element(load::kOctetString, "1.2.840.113556.1.4.319") +
                             load::element(load::kBoolean, "\x01") + load::element(load::kOctetString, page));
    const std::string bytes = load::message(load::element(load::kSearchResultDone, ""), other + paged);
    load::Reply reply;
    ASSERT_EQ(load::readMessage(bytes, &reply), bytes.size());
    EXPECT_EQ(load::pagedCookie(reply), "biscuit");
}

TEST(Histogram, SmallValuesAreExact) {
    load::Histogram histogram;
    EXPECT_EQ(histogram.quantile(0.5), 0U);
    for (std::uint64_t value = 1; value <= 10; ++value) histogram.add(value);
    EXPECT_EQ(histogram.total(), 10U);
    EXPECT_EQ(histogram.quantile(0), 1U);
    EXPECT_EQ(histogram.quantile(0.5), 6U);
    EXPECT_EQ(histogram.quantile(1), 10U);
}

TEST(Histogram, LargeValuesAreRightWithinAThirtySecond) {
    for (std::uint64_t value = 1; value < (1ULL << 62); value = value * 3 + 1) {
        load::Histogram histogram;
        histogram.add(value);
        EXPECT_GE(histogram.quantile(0.5), value);
        EXPECT_LE(histogram.quantile(0.5), value + value / 32);
    }
    load::Histogram histogram;
    histogram.add(~0ULL);
    EXPECT_EQ(histogram.quantile(0.5), ~0ULL);
}

TEST(Order, EachOnceAndThenAgain) {
    load::Order order(4, 1, false);
    std::vector<std::size_t> first;
    std::vector<std::size_t> second;
    for (int i = 0; i < 4; ++i) first.push_back(order.next());
    for (int i = 0; i < 4; ++i) second.push_back(order.next());
    EXPECT_THAT(first, UnorderedElementsAre(0, 1, 2, 3));
    EXPECT_EQ(second, first);
}

TEST(Order, OneSeedIsOneOrder) {
    load::Order one(1'000, 7, true);
    load::Order same(1'000, 7, true);
    load::Order other(1'000, 8, true);
    int equal = 0;
    for (int i = 0; i < 100; ++i) {
        const std::size_t index = one.next();
        EXPECT_LT(index, 1'000U);
        EXPECT_EQ(same.next(), index);
        equal += other.next() == index ? 1 : 0;
    }
    EXPECT_LT(equal, 10);
}

load::Plan plan(std::vector<std::string> words) {
    words.insert(words.begin(), "ldap_load");
    std::vector<char*> pointers;
    for (std::string& word : words) pointers.push_back(word.data());
    return load::readPlan(static_cast<int>(pointers.size()), pointers.data());
}

TEST(Plan, IsReadFromTheCommandLine) {
    const load::Plan read =
        plan({"paged", "--port", "389", "--page-size", "500", "--attributes", "cn,,uid", "--seconds", "0.25",
              "--expect-key", "yes", "--watch", "3", "--watch", "4"});
    EXPECT_EQ(read.mode, load::Mode::Paged);
    EXPECT_EQ(read.port, 389);
    EXPECT_EQ(read.pageSize, 500U);
    EXPECT_THAT(read.search.attributes, ElementsAre("cn", "uid"));
    EXPECT_EQ(read.seconds, 0.25);
    EXPECT_TRUE(read.expectKey);
    EXPECT_FALSE(read.expectEntries);
    EXPECT_THAT(read.watched, ElementsAre(3, 4));
}

TEST(Plan, WhatMakesNoSenseIsRefused) {
    const std::vector<std::vector<std::string>> cases = {
        {},
        {"walk"},
        {"enumeration"},
        {"enumeration", "--port", "70000"},
        {"enumeration", "--port", "389x"},
        {"enumeration", "--port"},
        {"enumeration", "--port", "389", "--colour", "red"},
        {"enumeration", "--port", "389", "--connections", "0"},
        {"enumeration", "--port", "389", "--prime", "perhaps"},
        {"enumeration", "--port", "389", "--stepwise", "often"},
        {"lookup", "--port", "389"},
        {"paged", "--port", "389"},
        {"paged", "--port", "389", "--page-size", "5", "--outstanding", "2"},
    };
    for (const auto& words : cases) {
        EXPECT_THROW(plan(words), std::invalid_argument) << testing::PrintToString(words);
    }
}

TEST(Requests, KeysReplaceTheirPlace) {
    load::Plan read = plan({"enumeration", "--port", "389"});
    read.mode = load::Mode::Bind;
    read.keys = {"ann", "ben"};
    read.bindDn = "cn=%s,ou=%s";
    read.bindPassword = "%s";
    load::Requests requests(read);
    ASSERT_EQ(requests.count(), 2U);
    EXPECT_EQ(requests.key(1), "ben");
    std::string expected = load::message(load::bindRequest("cn=ben,ou=ben", "%s"));
    load::setMessageId(&expected, 0x01020304);
    EXPECT_EQ(requests.message(1, 0x01020304), expected);
}

}  // namespace
