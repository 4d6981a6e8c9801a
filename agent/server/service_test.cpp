// SPDX-License-Identifier: Apache-2.0
#include "agent/server/service.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

#include "agent/directory/fake_directory_testing.h"
#include "agent/directory/log_testing.h"
#include "agent/server/frames_testing.h"
#include "vorn/clock_testing.h"

namespace vexagent {
namespace {

std::time_t serviceNow = 1000;
std::time_t serviceClock() {
    return serviceNow;
}

class ServiceTest : public ::testing::Test {
  protected:
    ServiceTest() {
        serviceNow = 1000;
        m_service.connected(m_ann);
        m_service.connected(m_ben);
    }

    Reply ask(const Client& client, const Bytes& frame) {
        const wire::Request* request = readRequest(frame);
        EXPECT_NE(request, nullptr);
        const std::optional<Bytes> answer = m_service.handle(client, *request);
        return answer ? readReply(*answer) : Reply{};
    }

    // What the log says of a request.
    std::string logged(const Client& client, const Bytes& frame) {
        const test::CapturedLog log;
        ask(client, frame);
        return log.text();
    }

    const Client m_ann{10, 1};
    const Client m_ben{11, 1};
    FakeDirectory m_directory;
    std::uint64_t m_nextId = 1;
    vorn::test::ManualClock m_moments;
    Service m_service{m_directory, serviceClock, [this] { return m_nextId++; }, m_moments};
};

TEST_F(ServiceTest, ASearchGoesOnUntilItsLastBatch) {
    Reply reply = ask(m_ann, searchFrame(7, "3"));
    EXPECT_EQ(reply.id, 7u);
    EXPECT_EQ(reply.code, VEX_OK);
    EXPECT_EQ(reply.total, 3);
    ASSERT_NE(reply.search, 0u);
    const std::uint64_t search = reply.search;
    EXPECT_EQ(ask(m_ann, nextFrame(8, search)).search, search);
    reply = ask(m_ann, nextFrame(9, search));
    EXPECT_EQ(reply.total, 3);
    EXPECT_EQ(reply.search, 0u);
    EXPECT_EQ(reply.dns, (std::vector<std::string>{"object 3"}));
    EXPECT_EQ(m_service.openSearches(), 0u);
    EXPECT_EQ(ask(m_ann, nextFrame(10, search)).code, VEX_BROKEN_HANDLE);
}

TEST_F(ServiceTest, WhatIsAskedReachesTheDirectory) {
    const auto search = [this](int sizeLimit, int pageSize, const std::vector<int>& options) {
        ask(m_ann,
            requestFrame(
                1, wire::Body::SearchOpen,
                [&](auto& builder) {
                    const auto domain = builder.CreateString("example.com");
                    const auto filter = builder.CreateString("record");
                    const auto base = builder.CreateString("ou=x");
                    const auto names = builder.CreateVectorOfStrings(std::vector<std::string>{"cn", "mail"});
                    return wire::CreateSearchOpen(builder, domain, filter, base, names, 1, sizeLimit,
                                                  pageSize);
                },
                options));
        return m_directory.asked;
    };
    Query query = search(0, 0, {});
    EXPECT_EQ(query.domain, "example.com");
    EXPECT_EQ(query.base, "ou=x");
    EXPECT_EQ(query.scope, 1);
    EXPECT_EQ(query.view.attributes, (std::vector<std::string>{"cn", "mail"}));
    EXPECT_EQ(query.firstBatch, 0u);
    EXPECT_FALSE(query.typed);
    EXPECT_FALSE(query.view.zone);
    query = search(-1, 1, {VEX_OPTION_TYPED});
    EXPECT_EQ(query.firstBatch, 2u) << "one more tells whether there are more";
    EXPECT_TRUE(query.typed);
    EXPECT_FALSE(query.view.zone);
    query = search(1, 500, {VEX_OPTION_ZONE_VIEW});
    EXPECT_EQ(query.firstBatch, 2u);
    EXPECT_FALSE(query.typed);
    EXPECT_TRUE(query.view.zone);
    EXPECT_EQ(search(500, 20, {}).firstBatch, 21u);
}

TEST_F(ServiceTest, AFetchAndALookUpGiveOneObjectAsItIsWanted) {
    const auto fetch = [this](const std::vector<int>& options) {
        return ask(m_ann, requestFrame(
                              1, wire::Body::Fetch,
                              [&](auto& builder) {
                                  const auto domain = builder.CreateString("example.com");
                                  const auto dn = builder.CreateString("there");
                                  return wire::CreateFetch(
                                      builder, domain, dn,
                                      builder.CreateVectorOfStrings(std::vector<std::string>{"cn", "mail"}));
                              },
                              options));
    };
    EXPECT_EQ(fetch({}).total, 1);
    EXPECT_EQ(m_directory.within, "example.com");
    EXPECT_EQ(m_directory.viewed.attributes, (std::vector<std::string>{"cn", "mail"}));
    EXPECT_FALSE(m_directory.viewed.zone);
    EXPECT_EQ(fetch({VEX_OPTION_ZONE_VIEW}).dns, std::vector<std::string>{"there"});
    EXPECT_TRUE(m_directory.viewed.zone);
    ask(m_ann, lookupFrame(2, "there", {}));
    EXPECT_TRUE(m_directory.viewed.attributes.empty());
    EXPECT_FALSE(m_directory.viewed.zone);
    ask(m_ann, lookupFrame(3, "there", {}, {VEX_OPTION_ZONE_VIEW}));
    EXPECT_TRUE(m_directory.viewed.attributes.empty());
    EXPECT_TRUE(m_directory.viewed.zone);
}

TEST_F(ServiceTest, TheSupportedAttributesAreListed) {
    const Bytes frame = requestFrame(1, wire::Body::SupportedAttributes,
                                     [](auto& builder) { return wire::CreateSupportedAttributes(builder); });
    const std::optional<Bytes> answer = m_service.handle(m_ann, *readRequest(frame));
    ASSERT_TRUE(answer);
    const auto* response = flatbuffers::GetSizePrefixedRoot<wire::Response>(answer->data());
    ASSERT_NE(response->names(), nullptr);
    ASSERT_EQ(response->names()->size(), 2u);
    EXPECT_EQ(response->names()->Get(0)->str(), "cn");
    EXPECT_EQ(response->names()->Get(1)->str(), "member");
}

TEST_F(ServiceTest, EachRequestHasALineInTheLog) {
    using ::testing::HasSubstr;
    m_directory.onLookup = [this] { m_moments.advance(std::chrono::microseconds(1234)); };
    EXPECT_THAT(logged(m_ann, lookupFrame(1, "there", {})),
                HasSubstr("lookup \"there\" from pid 10 uid 1: code 0, 1 objects, 1234 us\n"));
    EXPECT_THAT(logged(m_ann, searchFrame(1, "2")),
                HasSubstr("search \"2\" below \"\" from pid 10 uid 1: code 0, 1 objects, 0 us\n"));
    EXPECT_THAT(logged(m_ben, healthFrame(1)),
                HasSubstr("health  from pid 11 uid 1: code 0, 0 objects, 0 us\n"));
    EXPECT_THAT(logged(m_ann, loginFrame(1, "ann", "right")), HasSubstr("authenticate \"ann\" from pid 10"));
    EXPECT_THAT(logged(m_ann, changeFrame(1, "ann", "right", "new")),
                HasSubstr("password \"ann\" from pid 10"));
    const std::string most(200, 'x');
    EXPECT_THAT(logged(m_ann, sharingFrame(wire::Body::Fetch, most, 0, 0)),
                HasSubstr("fetch \"" + most + "\" from"));
    EXPECT_THAT(logged(m_ann, sharingFrame(wire::Body::Fetch, most + "y", 0, 0)),
                HasSubstr("fetch \"" + most + "...\" from"));
}

TEST_F(ServiceTest, WhyARequestFailedIsInTheLogOnce) {
    using ::testing::HasSubstr;
    using ::testing::Not;
    EXPECT_THAT(logged(m_ann, searchFrame(1, "throw")),
                HasSubstr("search failed for pid 10 uid 1: thrown\n"));
    EXPECT_THAT(logged(m_ann, searchFrame(1, "fail")), Not(HasSubstr("failed for")))
        << "the client is told all there is";
    m_directory.thrown = std::string(800, 'x');
    EXPECT_THAT(logged(m_ann, searchFrame(1, "throw")), HasSubstr(": " + m_directory.thrown + "\n"));
    m_directory.thrown += "y";
    EXPECT_THAT(logged(m_ann, searchFrame(1, "throw")), HasSubstr(": " + std::string(800, 'x') + "...\n"));
    EXPECT_THAT(logged(m_ann, loginFrame(1, "ann", "right")), Not(HasSubstr("failed")));
    const std::string refused = logged(m_ann, loginFrame(1, "ann", "wrong"));
    EXPECT_THAT(refused,
                HasSubstr("authentication of \"ann\" failed for pid 10 uid 1: wrong password (code " +
                          std::to_string(VEX_WRONG_PASSWORD) + ")\n"));
    EXPECT_THAT(refused, Not(HasSubstr("authenticate failed")));
}

TEST_F(ServiceTest, ASearchThatFailsLaterOnIsOver) {
    const Reply first = ask(m_ann, searchFrame(1, "broken"));
    ASSERT_NE(first.search, 0u);
    const Reply next = ask(m_ann, nextFrame(2, first.search));
    EXPECT_EQ(next.code, VEX_UNAVAILABLE);
    EXPECT_EQ(next.errText, "went away");
    EXPECT_EQ(m_service.openSearches(), 0u);
}

TEST_F(ServiceTest, APersonSearchedForByTheUidOfADnIsSearchedForBelowItsParent) {
    const auto make = [](auto& builder) {
        const auto filter = builder.CreateString("(&(objectClass=user)(uid=ann))");
        const auto base = builder.CreateString("uid=ann,ou=x");
        return wire::CreateSearchOpen(builder, 0, filter, base, 0, 0);
    };
    ask(m_ann, requestFrame(1, wire::Body::SearchOpen, make));
    EXPECT_EQ(m_directory.asked.base, "ou=x");
    EXPECT_EQ(m_directory.asked.scope, 2);
}

TEST_F(ServiceTest, ASearchBelongsToItsProcess) {
    const std::uint64_t search = ask(m_ann, searchFrame(1, "3")).search;
    EXPECT_EQ(ask(m_ben, nextFrame(2, search)).code, VEX_BROKEN_HANDLE);
    ask(m_ben, closeFrame(3, search));
    EXPECT_EQ(m_service.openSearches(), 1u);
    m_service.connected(m_ann);
    m_service.disconnected(m_ann);
    EXPECT_EQ(ask(m_ann, nextFrame(4, search)).code, VEX_OK);
    m_service.disconnected(m_ann);
    EXPECT_EQ(m_service.openSearches(), 0u);
}

TEST_F(ServiceTest, ACloseIsNotAnswered) {
    const std::uint64_t search = ask(m_ann, searchFrame(1, "3")).search;
    const Bytes frame = closeFrame(2, search);
    EXPECT_EQ(m_service.handle(m_ann, *readRequest(frame)), std::nullopt);
    EXPECT_EQ(m_service.openSearches(), 0u);
}

TEST_F(ServiceTest, AnIdleSearchEndsAfterItsTime) {
    const std::uint64_t search = ask(m_ann, searchFrame(1, "5")).search;
    serviceNow += wire::kSearchIdleSeconds;
    m_service.expireSearches();
    EXPECT_EQ(ask(m_ann, nextFrame(2, search)).code, VEX_OK);  // and counts anew
    serviceNow += wire::kSearchIdleSeconds;
    m_service.expireSearches();
    EXPECT_EQ(m_service.openSearches(), 1u);
    ++serviceNow;
    m_service.expireSearches();
    EXPECT_EQ(m_service.openSearches(), 0u);
}

TEST_F(ServiceTest, OpenSearchesAreLimitedForEachProcess) {
    const Bytes frame = searchFrame(1, "3");
    for (int i = 0; i < wire::kMaxSearchesPerClient; ++i)
        ASSERT_NE(m_service.handle(m_ann, *readRequest(frame)), std::nullopt);
    const Reply reply = ask(m_ann, frame);
    EXPECT_EQ(reply.code, VEX_REFUSED);
    EXPECT_EQ(reply.errText, "too many open searches");
    EXPECT_EQ(ask(m_ben, frame).code, VEX_OK);
    ask(m_ann, closeFrame(2, 1));
    EXPECT_EQ(ask(m_ann, frame).code, VEX_OK) << "one has ended";
    EXPECT_EQ(ask(m_ann, frame).code, VEX_REFUSED);
}

TEST_F(ServiceTest, RefusesWhatIsOutOfRange) {
    EXPECT_EQ(ask(m_ann, searchFrame(1, "1", 3)).code, VEX_OK);
    EXPECT_EQ(ask(m_ann, searchFrame(1, "1", 4)).code, VEX_INVALID_ARGUMENT);
    EXPECT_EQ(ask(m_ann, searchFrame(1, "1", -1)).code, VEX_INVALID_ARGUMENT);
    const std::vector<std::string> names(wire::kMaxRequestedAttributes + 1, "cn");
    const Reply reply = ask(m_ann, searchFrame(1, "1", 2, names));
    EXPECT_EQ(reply.code, VEX_REFUSED);
    EXPECT_EQ(reply.errText, "too many attributes asked for");
}

// A frame of some kB whose texts come to more than a request may be.
TEST_F(ServiceTest, TextsThatShareTheirBytesAreRefusedUncopied) {
    const std::string text(4096, 'x');
    const std::size_t many = wire::kMaxRequestBytes / text.size();
    const auto frame = [&](wire::Body kind, std::size_t references, std::size_t options) {
        return sharingFrame(kind, text, references, options);
    };
    for (const wire::Body kind : {wire::Body::SearchOpen, wire::Body::Fetch}) {
        EXPECT_LT(frame(kind, many, 0).size(), 3 * text.size());
        // Beside the references the text is the domain, the base and so on.
        const std::size_t most = many - (kind == wire::Body::Fetch ? 2 : 3);
        EXPECT_NE(ask(m_ann, frame(kind, most, 0)).code, VEX_REFUSED);
        const Reply reply = ask(m_ann, frame(kind, most + 1, 0));
        EXPECT_EQ(reply.code, VEX_REFUSED);
        EXPECT_EQ(reply.errText, "the texts of the request are too long");
    }
    EXPECT_EQ(m_directory.searches, 1);
    EXPECT_EQ(m_directory.fetches, 1);
    const std::string half(wire::kMaxRequestBytes / 2 + 1, 'x');
    EXPECT_EQ(ask(m_ann, sharingFrame(wire::Body::Authenticate, half, 0, 0)).code, VEX_REFUSED);
    const std::string third(wire::kMaxRequestBytes / 3 + 1, 'x');
    EXPECT_EQ(ask(m_ann, sharingFrame(wire::Body::ChangePassword, third, 0, 0)).code, VEX_REFUSED);
    EXPECT_EQ(m_directory.changedPassword, "");
    EXPECT_EQ(m_directory.logins, 0);
}

TEST_F(ServiceTest, OptionsAreLimited) {
    const auto code = [&](std::size_t options) {
        return ask(m_ann, sharingFrame(wire::Body::Fetch, "x", 1, options)).code;
    };
    EXPECT_EQ(code(wire::kMaxOptions), VEX_NO_SUCH_OBJECT);
    EXPECT_EQ(code(wire::kMaxOptions + 1), VEX_REFUSED);
    EXPECT_THAT(logged(m_ann, sharingFrame(wire::Body::Fetch, "x", 1, wire::kMaxOptions + 1)),
                ::testing::HasSubstr("refused a request of pid 10 uid 1: too many options\n"));
}

TEST_F(ServiceTest, AFailureOfTheDirectoryReachesTheClient) {
    const Reply reply = ask(m_ann, searchFrame(1, "fail"));
    EXPECT_EQ(reply.code, VEX_BAD_FILTER);
    EXPECT_EQ(reply.errSystem, VEX_ERR_LDAP);
    EXPECT_EQ(reply.errCode, -7);
    EXPECT_EQ(reply.errText, "bad search filter");
}

TEST_F(ServiceTest, WhatAClientNeedNotKnowStaysHere) {
    const Reply thrown = ask(m_ann, searchFrame(1, "throw"));
    EXPECT_EQ(thrown.code, VEX_DIRECTORY_ERROR);
    EXPECT_EQ(thrown.errText, "the directory cannot answer");
    m_directory.healthy = false;
    EXPECT_EQ(ask(m_ann, healthFrame(2)).errText, "away");
}

TEST_F(ServiceTest, APasswordsStartDoesNotPassForIt) {
    EXPECT_EQ(ask(m_ann, loginFrame(1, "ann", std::string("right\0", 6))).code, VEX_WRONG_PASSWORD);
    EXPECT_EQ(ask(m_ann, loginFrame(2, "ann", std::string("right\0junk", 10))).code, VEX_WRONG_PASSWORD);
}

TEST_F(ServiceTest, AnAnswerLargerThanAFrameIsAFailure) {
    const Reply reply = ask(m_ann, searchFrame(1, "huge"));
    EXPECT_EQ(reply.code, VEX_DIRECTORY_ERROR);
    EXPECT_EQ(reply.errText, "the answer is larger than a response may be");
    EXPECT_TRUE(reply.dns.empty());
    EXPECT_EQ(m_service.openSearches(), 0u) << "nobody knows how to ask for the rest";
}

TEST_F(ServiceTest, HealthIsAConditionOfASucceedingRequest) {
    Reply reply = ask(m_ann, healthFrame(5));
    EXPECT_EQ(reply.code, VEX_OK);
    EXPECT_EQ(reply.condition, VEX_OK);
    m_directory.healthy = false;
    reply = ask(m_ann, healthFrame(6));
    EXPECT_EQ(reply.code, VEX_OK);
    EXPECT_EQ(reply.condition, VEX_UNAVAILABLE);
    EXPECT_EQ(ask(m_ann, loginFrame(7, "ann", "right")).condition, -1) << "is asked for by nobody else";
    EXPECT_EQ(reply.errSystem, VEX_ERR_AGENT);
    EXPECT_EQ(reply.errText, "away");
}

TEST_F(ServiceTest, LoginsArePassedOnOnce) {
    EXPECT_EQ(ask(m_ann, loginFrame(1, "ann", "right")).code, VEX_OK);
    EXPECT_EQ(ask(m_ann, loginFrame(2, "ann", "wrong")).code, VEX_WRONG_PASSWORD);
    EXPECT_EQ(m_directory.logins, 2);
}

TEST_F(ServiceTest, ALoginSaysWhetherTheAgentsMemoryMayAnswer) {
    ask(m_ann, loginFrame(1, "ann", "right"));
    EXPECT_FALSE(m_directory.loginOptions.preferCached);
    EXPECT_FALSE(m_directory.loginOptions.allowCached);
    ask(m_ann, loginFrame(2, "ann", "right", {0x100}));
    EXPECT_TRUE(m_directory.loginOptions.preferCached);
    EXPECT_FALSE(m_directory.loginOptions.allowCached);
    ask(m_ann, loginFrame(3, "ann", "right", {0x1000}));
    EXPECT_FALSE(m_directory.loginOptions.preferCached);
    EXPECT_TRUE(m_directory.loginOptions.allowCached);
}

// ------------------------------------------------------------ look-ups ahead

TEST_F(ServiceTest, ALookUpBringsWhatFollowsItInItsOrder) {
    const Reply reply = ask(m_ann, lookupFrame(1, "there", {"there", "nowhere", "there"}));
    EXPECT_EQ(reply.code, VEX_OK);
    EXPECT_EQ(reply.dns, (std::vector<std::string>{"there", "there", "there"}));
    EXPECT_EQ(reply.total, 1);
    EXPECT_EQ(m_directory.fetches, 4);
}

TEST_F(ServiceTest, ALookUpThatFailsBringsNothing) {
    const Reply reply = ask(m_ann, lookupFrame(1, "nowhere", {"there"}));
    EXPECT_EQ(reply.code, VEX_NO_SUCH_OBJECT);
    EXPECT_EQ(reply.errText, "no object has this DN");
    EXPECT_TRUE(reply.dns.empty());
    EXPECT_EQ(m_directory.fetches, 1);
}

TEST_F(ServiceTest, WhatADirectoryDoesNotLookUpAheadIsLeftOut) {
    m_directory.looksAhead = false;
    EXPECT_EQ(ask(m_ann, lookupFrame(1, "there", {"there"})).dns.size(), 1u);
    EXPECT_EQ(m_directory.fetches, 1);
}

TEST_F(ServiceTest, WhatALookUpBringsFitsIntoABatch) {
    const std::size_t names = std::string("_dntheredata").size();  // of each object
    m_directory.lookupBytes = wire::kBatchBytes / 4 - names;
    EXPECT_EQ(ask(m_ann, lookupFrame(1, "there", {4, "there"})).dns.size(), 4u) << "which fill it";
    m_directory.lookupBytes = wire::kBatchBytes / 4 - names + 1;
    const int before = m_directory.fetches;
    EXPECT_EQ(ask(m_ann, lookupFrame(1, "there", {4, "there"})).dns.size(), 3u);
    EXPECT_EQ(m_directory.fetches, before + 4) << "the one that does not fit is the last";
    m_directory.lookupBytes = wire::kBatchBytes + 1;
    EXPECT_EQ(ask(m_ann, lookupFrame(2, "there", {4, "there"})).dns.size(), 1u) << "the one asked for comes";
}

TEST_F(ServiceTest, ALookUpWaitsForNoSlowOneAhead) {
    m_directory.onLookup = [this] { m_moments.advance(std::chrono::milliseconds(40)); };
    EXPECT_EQ(ask(m_ann, lookupFrame(1, "there", {100, "there"})).dns.size(), 5u) << "100 ms after the first";
    m_directory.onLookup = [this] { m_moments.advance(std::chrono::milliseconds(999)); };
    EXPECT_EQ(ask(m_ann, lookupFrame(2, "there", {100, "there"})).dns.size(), 3u);
    m_directory.onLookup = [this] { m_moments.advance(std::chrono::milliseconds(50)); };
    EXPECT_EQ(ask(m_ann, lookupFrame(3, "there", {100, "there"})).dns.size(), 4u) << "the second at 100 ms";
    m_directory.onLookup = [this] { m_moments.advance(std::chrono::milliseconds(33)); };
    EXPECT_EQ(ask(m_ann, lookupFrame(4, "there", {100, "there"})).dns.size(), 6u) << "the third at 99 ms";
}

TEST_F(ServiceTest, ARequestIsOfOneOfTheKindsThatThereAre) {
    const auto isKnown = [](int kind) {
        const Bytes frame = requestFrame(1, static_cast<wire::Body>(kind),
                                         [](auto& builder) { return wire::CreateHealth(builder); });
        return Service::isKnown(*flatbuffers::GetRoot<wire::Request>(frame.data()));
    };
    EXPECT_FALSE(isKnown(0));
    EXPECT_TRUE(isKnown(1));
    EXPECT_TRUE(isKnown(static_cast<int>(wire::Body::ChangePassword)));
    EXPECT_FALSE(isKnown(static_cast<int>(wire::Body::ChangePassword) + 1));
}

TEST_F(ServiceTest, AfterASlowLookUpNoneIsMadeAhead) {
    m_directory.onLookup = [this] { m_moments.advance(std::chrono::milliseconds(1000)); };
    EXPECT_EQ(ask(m_ann, lookupFrame(1, "there", {"there"})).dns.size(), 1u);
    EXPECT_EQ(m_directory.fetches, 1);
    m_directory.onLookup = [this] { m_moments.advance(std::chrono::milliseconds(999)); };
    EXPECT_EQ(ask(m_ann, lookupFrame(2, "there", {"there"})).dns.size(), 2u);
}

TEST_F(ServiceTest, LookUpsAheadAreLimited) {
    const std::vector<std::string> most(wire::kMaxLookupsAhead, "there");
    EXPECT_EQ(ask(m_ann, lookupFrame(1, "there", most)).dns.size(), 1 + wire::kMaxLookupsAhead);
    const int before = m_directory.fetches;
    const Reply reply = ask(m_ann, lookupFrame(2, "there", {wire::kMaxLookupsAhead + 1, "there"}));
    EXPECT_EQ(reply.code, VEX_REFUSED);
    EXPECT_EQ(reply.errText, "too many objects looked up at once");
    const std::string text(wire::kMaxRequestBytes / 8, 'x');
    EXPECT_EQ(ask(m_ann, sharingFrame(wire::Body::Lookup, text, 8, 0)).code, VEX_REFUSED);
    EXPECT_EQ(m_directory.fetches, before);
}

TEST_F(ServiceTest, APasswordIsChangedByTheDirectory) {
    EXPECT_EQ(ask(m_ann, changeFrame(1, "ann", "right", "new")).code, VEX_OK);
    EXPECT_EQ(m_directory.changedPassword, "ann right new");
    EXPECT_EQ(ask(m_ann, changeFrame(1, "ann", "wrong", "new")).code, VEX_WRONG_PASSWORD);
    const Reply bad = ask(m_ann, changeFrame(1, "ann", "right", "bad"));
    EXPECT_EQ(bad.code, VEX_REFUSED);
    EXPECT_EQ(bad.errSystem, VEX_ERR_LDAP);
    EXPECT_EQ(bad.errCode, 19);
    EXPECT_EQ(bad.errText, "too short");
    EXPECT_THAT(m_service.statistics(), ::testing::HasSubstr("password 3, failed 2;"));
}

TEST_F(ServiceTest, AChangeOfAPasswordIsInTheLogAndNoPasswordIs) {
    using ::testing::HasSubstr;
    using ::testing::Not;
    const std::string done = logged(m_ann, changeFrame(1, "ann", "right", "n3w"));
    EXPECT_THAT(done, HasSubstr("change of the password of \"ann\" for pid 10 uid 1: done (code 0)\n"));
    EXPECT_THAT(done, Not(HasSubstr("n3w")));
    EXPECT_THAT(done, Not(HasSubstr("right")));
    EXPECT_THAT(logged(m_ann, changeFrame(1, "ann", "0ld", "n3w")),
                HasSubstr("uid 1: failed: wrong password (code 14)\n"));
    EXPECT_THAT(logged(m_ann, changeFrame(1, "ann", "right", "bad")), Not(HasSubstr("refused a request")))
        << "which is said once";
}

TEST_F(ServiceTest, StatisticsCountByKind) {
    ask(m_ann, searchFrame(1, "3"));
    ask(m_ann, searchFrame(1, ""));
    ask(m_ann, loginFrame(2, "ann", "wrong"));
    EXPECT_EQ(m_service.statistics(),
              "requests served: search 2, next 0, close 0, fetch 0, lookup 0, authenticate 1, attributes 0, "
              "health 0, password 0, "
              "failed 1; open searches: 1; client processes: 2");
}

TEST_F(ServiceTest, ARequestOfAnUnknownKindCountsAsAFailureAlone) {
    const int unknown = static_cast<int>(wire::Body::ChangePassword) + 1;
    const Bytes frame = requestFrame(1, static_cast<wire::Body>(unknown),
                                     [](auto& builder) { return wire::CreateHealth(builder); });
    EXPECT_EQ(ask(m_ann, frame).code, VEX_REFUSED);
    EXPECT_EQ(m_service.statistics(),
              "requests served: search 0, next 0, close 0, fetch 0, lookup 0, authenticate 0, attributes 0, "
              "health 0, password 0, "
              "failed 1; open searches: 0; client processes: 2");
}

TEST_F(ServiceTest, LanesFollowTheCost) {
    const auto lane = [this](const Bytes& frame) { return m_service.lane(*readRequest(frame)); };
    EXPECT_EQ(lane(searchFrame(1, "quick")), Lane::Quick);
    EXPECT_EQ(lane(searchFrame(1, "3")), Lane::Slow);
    EXPECT_EQ(lane(nextFrame(1, 1)), Lane::Slow);
    EXPECT_EQ(lane(loginFrame(1, "a", "b")), Lane::Slow);
    EXPECT_EQ(lane(healthFrame(1)), Lane::Quick);
    EXPECT_EQ(lane(lookupFrame(1, "x", {})), Lane::Quick);
    EXPECT_EQ(lane(lookupFrame(1, "x", {"y"})), Lane::Slow);
}

TEST(RandomId, IsNeverZeroNorTwiceTheSame) {
    const std::uint64_t first = randomId();
    EXPECT_NE(first, 0u);
    EXPECT_NE(randomId(), first);
}

}  // namespace
}  // namespace vexagent
