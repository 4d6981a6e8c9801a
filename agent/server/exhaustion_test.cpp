// SPDX-License-Identifier: Apache-2.0
// Requests whose memory runs out: at the first allocation, at the second, and so on to the
// last. The agent lives, says so or ends the connection, keeps nothing half-made, and
// answers the next one rightly.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "agent/directory/fake_directory_testing.h"
#include "agent/embedded/directory_testing.h"
#include "agent/server/descriptors_testing.h"
#include "agent/server/frames_testing.h"
#include "agent/server/stepped_server_testing.h"
#include "tests/standin/scarce_memory.h"

namespace vexagent {
namespace {

using standin::ScarceMemory;
using standin::Scarcity;

constexpr char kAnn[] = "12345678-1234-1234-1234-0123456789ab";

// Names longer than a string holds in itself.
std::string company() {
    std::string text = units();
    text += person("Ann with a long common name", "ann", 1001,
                   "displayName: Ann J\xc3\xb6rgensdottir of Example\nuserPassword: {CRYPT}zxPsFjmiXgExk\n"
                   "primaryGroupID: 2001\nobjectGUID: " +
                       std::string(kAnn) + "\n");
    text += person("Ben with a long common name", "ben", 1002);
    text += group("everybody", 2001, {"CN=Ann with a long common name,OU=People", "CN=some people,OU=Groups"},
                  "memberUid: somebody from elsewhere\n");
    text += group("some people", 2002, {"CN=Ben with a long common name,OU=People"});
    return text;
}

// The file that all attempts read.
const TestDirectory& directory() {
    static const TestDirectory made(company());
    return made;
}

// What a client gets to see of an answer.
std::string shown(const Bytes& frame) {
    const Reply reply = readReply(frame);
    std::string text = std::to_string(reply.code) + " " + reply.errText + " " +
                       std::to_string(reply.condition) + " " + (reply.search != 0 ? "more" : "over") + " " +
                       std::to_string(reply.total);
    const auto* response = flatbuffers::GetRoot<wire::Response>(frame.data() + wire::kLengthBytes);
    if (response->names() != nullptr)
        for (const auto* name : *response->names()) text += " " + name->str();
    if (response->objects() == nullptr) return text;
    for (const auto* packed : *response->objects())
        for (const auto* attribute : *packed->bytes_nested_root()->attributes()) {
            text += "\n" + attribute->name()->str() + ":";
            for (const auto* value : *attribute->values()) text += " " + value->str();
        }
    return text;
}

// An agent's life, for one attempt: nothing is remembered from the attempt before.
class Attempt {
  public:
    Attempt() { m_service.connected(m_client); }

    std::optional<Bytes> ask(const Bytes& frame) { return m_service.handle(m_client, *readRequest(frame)); }
    std::string answer(const Bytes& frame) {
        const std::optional<Bytes> response = ask(frame);
        return response ? shown(*response) : "no answer";
    }
    std::size_t openSearches() const { return m_service.openSearches(); }
    std::string statistics() const { return m_service.statistics(); }

  private:
    const Client m_client{10, 1};
    EmbeddedDirectory m_directory{
        {directory().database(), kDomain, {"sAMAccountName", "uid", "displayName"}, testClock}};
    Service m_service{m_directory, vorn::systemTime};
};

Bytes searching(const std::string& filter, const std::vector<std::string>& names = {}, bool zone = false,
                int pageSize = 0, const std::string& base = "", int scope = 2) {
    const auto make = [&](auto& builder) {
        const auto text = builder.CreateString(filter);
        const auto below = builder.CreateString(base);
        const auto list = builder.CreateVectorOfStrings(names);
        return wire::CreateSearchOpen(builder, 0, text, below, list, scope, -1, pageSize);
    };
    return requestFrame(1, wire::Body::SearchOpen, make,
                        zone ? std::vector<int>{VEX_OPTION_ZONE_VIEW} : std::vector<int>{});
}

Bytes fetching(const std::string& dn) {
    return requestFrame(1, wire::Body::Fetch, [&](auto& builder) {
        const auto text = builder.CreateString(dn);
        return wire::CreateFetch(builder, 0, text);
    });
}

Bytes askingForNames() {
    return requestFrame(1, wire::Body::SupportedAttributes,
                        [](auto& builder) { return wire::CreateSupportedAttributes(builder); });
}

struct Case {
    const char* name;
    Bytes frame;
};
void PrintTo(const Case& one, std::ostream* out) {
    *out << one.name;
}

const std::string kOutOfMemory = std::to_string(VEX_NO_MEMORY) + " out of memory -1 over 0";

class AgentExhaustion : public testing::TestWithParam<Case> {};

TEST_P(AgentExhaustion, ARequestIsAnsweredOrFailsAndTheNextOneIsAnswered) {
    const Bytes& frame = GetParam().frame;
    const std::string whole = Attempt().answer(frame);
    const std::size_t open = whole.find(" more ") != std::string::npos ? 1 : 0;
    std::size_t number = 1;
    for (bool more = true; more; ++number) {
        ASSERT_LT(number, 5000u);
        Attempt attempt;
        std::optional<Bytes> response;
        {
            const ScarceMemory scarce(number);
            response = attempt.ask(frame);
            more = scarce.ranOut();
        }
        ASSERT_TRUE(response);
        const std::string told = shown(*response);
        const std::string failed = told.starts_with("0 ") ? "failed 0;" : "failed 1;";
        EXPECT_THAT(attempt.statistics(), testing::HasSubstr(failed)) << number;
        if (told != whole) {
            EXPECT_TRUE(more);
            EXPECT_EQ(told, kOutOfMemory) << number;
            EXPECT_EQ(attempt.openSearches(), 0u) << number;
        }
        EXPECT_EQ(attempt.answer(frame), whole) << "after " << number;
        EXPECT_EQ(attempt.openSearches(), (told == whole ? 2 : 1) * open) << number;
    }
    EXPECT_GT(number, 2u);
}

// All that the domain holds, in more batches than one.
std::uint64_t opened(Attempt& attempt) {
    return readReply(*attempt.ask(searching("", {}, true, 1))).search;
}

TEST(AgentExhaustionOfSearches, ASearchWhoseNextBatchFailsIsOver) {
    std::string whole;
    {
        Attempt attempt;
        whole = attempt.answer(nextFrame(2, opened(attempt)));
    }
    std::size_t number = 1;
    for (bool more = true; more; ++number) {
        Attempt attempt;
        const Bytes frame = nextFrame(2, opened(attempt));
        std::string told;
        {
            std::optional<Bytes> response;
            {
                const ScarceMemory scarce(number);
                response = attempt.ask(frame);
                more = scarce.ranOut();
            }
            told = shown(*response);
        }
        EXPECT_EQ(told, more ? kOutOfMemory : whole) << number;
        EXPECT_EQ(attempt.openSearches(), 0u) << number;
        EXPECT_EQ(attempt.answer(nextFrame(3, opened(attempt))), whole) << "after " << number;
    }
    EXPECT_GT(number, 2u);
}

TEST(AgentExhaustionOfSearches, ASearchIsClosedWithoutMemory) {
    Attempt attempt;
    const Bytes frame = closeFrame(2, opened(attempt));
    const ScarceMemory scarce(1, Scarcity::Lasting);
    EXPECT_EQ(attempt.ask(frame), std::nullopt);
    EXPECT_EQ(attempt.openSearches(), 0u);
}

// Then there is none for an answer either.
TEST_P(AgentExhaustion, WhatNobodyCanBeToldOfDoesNotStayOpen) {
    const Bytes& frame = GetParam().frame;
    const std::string whole = Attempt().answer(frame);
    for (std::size_t number = 1; number < 5000; ++number) {
        Attempt attempt;
        std::optional<Bytes> response;
        try {
            const ScarceMemory scarce(number, Scarcity::Lasting);
            response = attempt.ask(frame);
        } catch (const std::bad_alloc&) {
        }
        if (response) {
            EXPECT_EQ(shown(*response), whole) << number;
            return;
        }
        EXPECT_EQ(attempt.openSearches(), 0u) << number;
        EXPECT_EQ(attempt.answer(frame), whole) << "after " << number;
    }
    FAIL() << "never answered";
}

// -------------------------------------------------------- the I/O's thread

// Every search comes to a worker that has no memory left.
class WorkerInNeed : public FakeDirectory {
  public:
    std::function<void()> onSearch = [] {};

    Result search(const Query& query, Batch& first, std::unique_ptr<Cursor>& rest) override {
        onSearch();
        return FakeDirectory::search(query, first, rest);
    }
};

class ServedExhaustion : public SteppedServer<WorkerInNeed> {};

// From the client's coming to its answer, however much of it there is memory for.
TEST_F(ServedExhaustion, OneWhoCannotBeServedGoesAndTheNextOneIsServed) {
    std::size_t number = 1;
    for (bool more = true; more; ++number) {
        ASSERT_LT(number, 1000U);
        const SteppedClient client(path());
        bool answered = false;
        {
            const ScarceMemory scarce(number, Scarcity::Lasting);
            run();
            more = scarce.ranOut();
        }
        const bool greeted = client.isGreeted();
        EXPECT_TRUE(greeted || client.isOver()) << number;
        if (greeted) {
            client.send(healthFrame(1));
            const ScarceMemory scarce(number, Scarcity::Lasting);
            run();
            more = more || scarce.ranOut();
        }
        answered = greeted && client.isAnswered();
        EXPECT_TRUE(answered || client.isOver()) << number;
        EXPECT_TRUE(answered || more) << number;
        const SteppedClient next(path());
        run();
        EXPECT_TRUE(next.isGreeted()) << "after " << number;
        next.send(healthFrame(1));
        run();
        EXPECT_TRUE(next.isAnswered()) << "after " << number;
    }
    EXPECT_GT(number, 2U);
    run();
    EXPECT_EQ(m_server.connections(), 0U);
}

TEST_F(ServedExhaustion, WhoComesWhileThereIsNeitherDescriptorNorMemoryIsServedOnceThereIs) {
    const SteppedClient client(path());
    {
        const FewDescriptors none(0);
        const ScarceMemory scarce(1, Scarcity::Lasting);
        for (int i = 0; i < 100; ++i) m_io.poll_one();
        EXPECT_TRUE(scarce.ranOut()) << "there is none to wait with";
    }
    run();
    EXPECT_TRUE(client.isGreeted());
}

// The scarcity is the worker's; it ends with the next work.
TEST_F(ServedExhaustion, AnAnswerThatAWorkerHasNoMemoryForEndsTheConnection) {
    std::optional<ScarceMemory> scarce;
    m_directory.onSearch = [&] { scarce.emplace(1, Scarcity::Lasting); };
    const SteppedClient client(path());
    run();
    EXPECT_TRUE(client.isGreeted());
    client.send(searchFrame(1, "3"));
    run();
    EXPECT_TRUE(client.receive().empty());
    EXPECT_TRUE(client.isOver());
    EXPECT_EQ(m_service.openSearches(), 0U);
    m_pool.post(Lane::Slow, [&] { scarce.reset(); });
    run();
    m_directory.onSearch = [] {};
    const SteppedClient next(path());
    run();
    EXPECT_TRUE(next.isGreeted());
    next.send(searchFrame(1, "3"));
    run();
    EXPECT_TRUE(next.isAnswered());
    EXPECT_EQ(m_service.openSearches(), 1U);
}

// ------------------------------------------------------------------- handles

TEST(DatabaseExhaustion, AHandleIsGivenBackWithoutMemory) {
    Database database(directory().database());
    std::optional<ScarceMemory> scarce;
    {
        const Database::Lease one = database.lease(), two = database.lease(), three = database.lease();
        scarce.emplace(1, Scarcity::Lasting);
    }
    scarce.reset();
    EXPECT_TRUE(database.lease()->sequence());
}

INSTANTIATE_TEST_SUITE_P(
    Requests, AgentExhaustion,
    testing::Values(
        Case{"search", searching("(uid=ann)")}, Case{"searchOfAll", searching("")},
        Case{"searchByFolding", searching("(displayName=ANN J\xc3\x96RGENSDOTTIR of example)")},
        Case{"searchForSome", searching("(objectClass=user)", {"anAttributeWithALongName", "uid"})},
        Case{"searchBelow",
             searching("(sAMAccountName=ann)", {}, false, 0, "OU=People,DC=example,DC=com", 1)},
        Case{"searchInZone", searching("(memberUid=ben)", {}, true)},
        Case{"page", searching("(objectClass=*)", {}, true, 1)}, Case{"badFilter", searching("(&(uid=ann)")},
        Case{"fetch", fetching("CN=Ann with a long common name,OU=People,DC=example,DC=com")},
        Case{"fetchByLogin", fetching("CN=ann,OU=People,DC=example,DC=com")},
        Case{"fetchOfNobody", fetching("CN=nobody,OU=People,DC=example,DC=com")},
        Case{"lookup", lookupFrame(1, kAnn, {})}, Case{"lookupAhead", lookupFrame(1, kAnn, {kAnn, kAnn})},
        Case{"login", loginFrame(1, "EXAMPLE\\ann", "right")},
        Case{"loginByDn", loginFrame(1, "CN=ann,OU=People,DC=example,DC=com", "right")},
        Case{"wrongLogin", loginFrame(1, "ann@example.com", "a wrong password of some length")},
        Case{"nobodysLogin", loginFrame(1, "nobody@example.com", "right")},
        Case{"attributes", askingForNames()}, Case{"health", healthFrame(1)}),
    [](const auto& one) { return std::string(one.param.name); });

}  // namespace
}  // namespace vexagent
