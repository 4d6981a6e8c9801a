// SPDX-License-Identifier: Apache-2.0
// Look-ups that were announced: what is asked for in one trip, and what stays as without.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>

#include "vex/closings.h"
#include "vex/handles.h"
#include "vex/look_ahead.h"
#include "vex/scripted_agent_testing.h"
#include "vex/session.h"
#include "vex/wire.h"
#include "vorn/clock_testing.h"

namespace vextest {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using vex::LookAhead;
using vex::UniqueObject;
using vex::UniqueSession;
using vex::UniqueString;
namespace wire = vex::wire;
using Guids = std::vector<std::string>;

std::string guid(std::size_t number) {
    const std::string digits = std::to_string(number);
    return "00000000-0000-0000-0000-" + std::string(12 - digits.size(), '0') + digits;
}

Guids guids(std::size_t from, std::size_t to) {
    Guids list;
    for (; from < to; ++from) list.push_back(guid(from));
    return list;
}

std::string objectOf(const std::string& guid) {
    AttributeList attributes = person(guid);
    for (auto& [name, values] : attributes)
        if (name == "_GUID") values = {guid};
    return packed(attributes);
}

struct Pointers : std::vector<const char*> {
    explicit Pointers(const Guids& texts) {
        for (const std::string& text : texts) push_back(text.c_str());
        push_back(nullptr);
    }
};

struct LookAheadOfASession : testing::Test {
    LookAheadOfASession() {
        vex::Closings::process().take(::getpid());  // searches of other tests, of which this agent was told
        serve(LookAheadOfASession::whole);
    }
    ~LookAheadOfASession() override { agent.stop(); }

    using Answer = Reply (*)(const std::string& guid, const Guids& more);

    // All there is.
    static Reply whole(const std::string& guid, const Guids& more) {
        Reply reply{.objects = {objectOf(guid)}};
        for (const std::string& next : more) reply.objects.push_back(objectOf(next));
        return reply;
    }
    void serve(Answer answer) {
        agent.onRequest([this, answer](const Peer& peer, const wire::Request& request) {
            const wire::Lookup& lookup = *request.body_as_Lookup();
            Guids more;
            if (lookup.more())
                for (const auto* text : *lookup.more()) more.push_back(text->str());
            asked.push_back({lookup.guid()->str(), more});
            peer.answer(request, answer(lookup.guid()->str(), more));
        });
    }

    vexCode expect(const Guids& list) { return vexExpectLookups(session.get(), Pointers(list).data()); }

    // The GUID's object by its name, or "code N".
    std::string lookUp(const std::string& wanted) {
        vexObject* object = nullptr;
        const vexCode code = vexLookupObjectByGuid(session.get(), wanted.c_str(), &object);
        if (code != VEX_OK) return "code " + std::to_string(code);
        const UniqueObject owner(object);
        UniqueString name;
        EXPECT_EQ(vex::readAttribute(session.get(), object, "cn", &name), VEX_OK);
        return name.get();
    }
    // Whether each look-up finds its own.
    bool allFound(const Guids& list) {
        return std::all_of(list.begin(), list.end(), [&](const auto& one) { return lookUp(one) == one; });
    }
    // How many GUIDs came beside the asked one, request by request.
    std::vector<std::size_t> askedBeside() const {
        std::vector<std::size_t> counts;
        for (const auto& [guid, more] : asked) counts.push_back(more.size());
        return counts;
    }

    // In which no time passes.
    static UniqueSession open() {
        vexSession* opened = nullptr;
        EXPECT_EQ(vexSessionOpen(VEX_SESSION_LOCAL, VEX_INTERFACE_LEVEL, &opened), VEX_OK);
        static const vorn::test::ManualClock standingStill;
        opened->lookAhead = LookAhead(standingStill);
        return UniqueSession(opened);
    }

    ScriptedAgent agent{5};
    std::vector<std::pair<std::string, Guids>> asked;
    UniqueSession session = open();
};

TEST_F(LookAheadOfASession, AHundredTakeOneRoundTrip) {
    ASSERT_EQ(expect(guids(0, 100)), VEX_OK);
    EXPECT_EQ(agent.requests(), 0) << "a hint asks nothing by itself";
    EXPECT_TRUE(allFound(guids(0, 100)));
    ASSERT_EQ(asked.size(), 1u);
    EXPECT_EQ(asked[0].first, guid(0));
    EXPECT_EQ(asked[0].second, guids(1, 100));
}

TEST_F(LookAheadOfASession, WithoutAHintNothingIsAskedBeside) {
    EXPECT_TRUE(allFound(guids(0, 3)));
    EXPECT_THAT(askedBeside(), ElementsAre(0, 0, 0));
}

TEST_F(LookAheadOfASession, WhatCameAnswersOneLookUp) {
    expect(guids(0, 2));
    allFound(guids(0, 2));
    EXPECT_EQ(lookUp(guid(1)), guid(1));
    EXPECT_EQ(agent.requests(), 2);
}

TEST_F(LookAheadOfASession, AnotherOneIsAskedForAloneAndDisturbsNothing) {
    expect(guids(0, 4));
    EXPECT_EQ(lookUp(guid(9)), guid(9));
    EXPECT_TRUE(allFound(guids(0, 4)));
    EXPECT_THAT(askedBeside(), ElementsAre(0, 3));
}

TEST_F(LookAheadOfASession, WhatIsPassedOverIsNotExpectedAnyMore) {
    expect(guids(0, 6));
    EXPECT_TRUE(allFound({guid(3), guid(4), guid(1)}));
    ASSERT_EQ(asked.size(), 2u);
    EXPECT_EQ(asked[0].second, guids(4, 6));
    EXPECT_THAT(asked[1].second, IsEmpty());
}

TEST_F(LookAheadOfASession, AnAgentThatDoesNotKnowHintsAnswersAsEverAndIsAskedOnce) {
    serve([](const std::string& guid, const Guids&) { return Reply{.objects = {objectOf(guid)}}; });
    expect(guids(0, 5));
    EXPECT_TRUE(allFound(guids(0, 5)));
    EXPECT_THAT(askedBeside(), ElementsAre(4, 0, 0, 0, 0));
}

TEST_F(LookAheadOfASession, WhatIsMissingIsAskedForByItselfAndFailsAsEver) {
    serve([](const std::string& wanted, const Guids& more) {
        if (wanted == guid(2))
            return Reply{.code = VEX_OBJECT_GONE, .errSystem = 2, .errCode = 32, .errText = "gone"};
        Reply reply = whole(wanted, more);
        std::erase(reply.objects, objectOf(guid(2)));
        return reply;
    });
    expect(guids(0, 4));
    EXPECT_TRUE(allFound(guids(0, 2)));
    EXPECT_EQ(lookUp(guid(2)), "code 36");
    int errSystem = 0, errCode = 0;
    char* text = nullptr;
    EXPECT_EQ(vexGetLastProtocolError(session.get(), &errSystem, &errCode, &text), VEX_OK);
    EXPECT_EQ(std::string(UniqueString(text).get()), "gone");
    EXPECT_EQ(errSystem, 2);
    EXPECT_EQ(errCode, 32);
    EXPECT_EQ(lookUp(guid(3)), guid(3));
    EXPECT_EQ(vexGetLastProtocolError(session.get(), &errSystem, &errCode, &text), VEX_NO_SUCH_ATTRIBUTE);
    EXPECT_EQ(agent.requests(), 2);
}

TEST_F(LookAheadOfASession, AnAnswerThatEndsEarlyIsGoneOnWithFromThere) {
    serve([](const std::string& wanted, const Guids& more) {
        return whole(wanted,
                     Guids(more.begin(), more.begin() + std::min<long>(more.end() - more.begin(), 9)));
    });
    expect(guids(0, 25));
    EXPECT_TRUE(allFound(guids(0, 25)));
    EXPECT_THAT(askedBeside(), ElementsAre(24, 14, 4));
}

TEST_F(LookAheadOfASession, ANewHintKeepsWhatHasCome) {
    expect(guids(0, 4));
    EXPECT_TRUE(allFound(guids(0, 2)));
    expect({guid(7), guid(2), guid(8), guid(3)});
    EXPECT_TRUE(allFound({guid(7), guid(2), guid(8), guid(3)}));
    ASSERT_EQ(asked.size(), 2u);
    EXPECT_EQ(asked[1].second, Guids{guid(8)});
}

TEST_F(LookAheadOfASession, AHintIsTakenBackByAnEmptyOne) {
    const char* const nothing[] = {nullptr};
    for (const char* const* empty : {static_cast<const char* const*>(nullptr), nothing}) {
        expect(guids(0, 4));
        EXPECT_EQ(vexExpectLookups(session.get(), empty), VEX_OK);
        EXPECT_EQ(lookUp(guid(0)), guid(0));
    }
    EXPECT_THAT(askedBeside(), Each(0));
}

TEST_F(LookAheadOfASession, ObjectsForOtherOptionsAreNotHandedOut) {
    expect(guids(0, 3));
    lookUp(guid(0));
    const int on = 1;
    ASSERT_EQ(vexSetOption(session.get(), VEX_OPTION_ZONE_VIEW, &on, sizeof on), VEX_OK);
    EXPECT_TRUE(allFound(guids(1, 3)));
    EXPECT_THAT(askedBeside(), ElementsAre(2, 1)) << "asked for anew, and again in one trip";
}

TEST_F(LookAheadOfASession, SessionsDoNotShareWhatCame) {
    expect(guids(0, 3));
    lookUp(guid(0));
    session = open();
    lookUp(guid(1));
    EXPECT_THAT(askedBeside(), ElementsAre(2, 0));
}

TEST_F(LookAheadOfASession, AHintIsBounded) {
    Guids many = guids(0, 1000);
    many[1] = std::string(1 << 20, 'x');
    many[2] = "";
    expect(many);
    EXPECT_TRUE(allFound(guids(0, 1)));
    ASSERT_EQ(asked.size(), 1u);
    EXPECT_EQ(asked[0].second, guids(3, VEX_MOST_AHEAD));
}

TEST_F(LookAheadOfASession, AHintHoldsTextsOfAGuidsLength) {
    const std::string longest(64, 'x'), tooLong(65, 'x');
    expect({guid(0), "1", longest, tooLong, tooLong + "x"});
    EXPECT_TRUE(allFound(guids(0, 1)));
    ASSERT_EQ(asked.size(), 1u);
    EXPECT_THAT(asked[0].second, ElementsAre("1", longest));
}

TEST_F(LookAheadOfASession, MoreObjectsThanWereAskedForAreNoAnswer) {
    serve([](const std::string& wanted, const Guids&) { return whole(wanted, guids(50, 53)); });
    expect(guids(0, 3));
    EXPECT_EQ(lookUp(guid(0)), "code 6");
    serve([](const std::string& wanted, const Guids&) { return whole(wanted, {guid(1)}); });
    EXPECT_EQ(lookUp(guid(9)), "code 6") << "nothing was asked for beside it";
}

TEST_F(LookAheadOfASession, ObjectsThatWereNotAskedForAreNobodys) {
    serve([](const std::string& wanted, const Guids& more) {
        return more.empty() ? whole(wanted, {}) : whole(wanted, {guid(50), guid(2)});
    });
    expect(guids(0, 3));
    EXPECT_EQ(lookUp(guid(0)), guid(0));
    EXPECT_EQ(lookUp(guid(50)), guid(50));
    EXPECT_EQ(agent.requests(), 2) << "the agent was asked for it";
    EXPECT_EQ(lookUp(guid(2)), guid(2));
    EXPECT_EQ(agent.requests(), 2) << "what was asked for came";
}

TEST_F(LookAheadOfASession, ABrokenConnectionFailsTheLookUpThatMetIt) {
    expect(guids(0, 3));
    agent.onRequest([](const Peer& peer, const wire::Request&) { peer.hangUp(); });
    EXPECT_EQ(lookUp(guid(0)), "code 6");
    serve(whole);
    EXPECT_TRUE(allFound(guids(0, 3)));
    agent.stop();
    EXPECT_EQ(lookUp(guid(5)), "code 6");
}

// ------------------------------------------------------------------------ time

struct LookAheadInTime : testing::Test {
    // What an answer with the objects of these GUIDs leaves.
    void answer(const Guids& list) {
        Reply reply;
        for (const std::string& one : list) reply.objects.push_back(objectOf(one));
        const std::string bytes = response(1, reply);
        ahead.keep(*flatbuffers::GetRoot<wire::Response>(bytes.data())->objects());
    }
    Guids missing() const {
        Guids list;
        for (const char* one : ahead.missing())
            if (one) list.push_back(one);
        return list;
    }
    vorn::test::ManualClock clock;
    LookAhead ahead{clock};
};

TEST_F(LookAheadInTime, WhatCameIsKeptForAShortTime) {
    ahead.expect(Pointers(guids(0, 4)).data());
    EXPECT_FALSE(ahead.take(guid(0)));
    EXPECT_EQ(missing(), guids(1, 4));
    answer(guids(0, 4));
    const vorn::Moment end = clock.now() + std::chrono::seconds(VEX_AHEAD_SECONDS);
    clock.set(end - std::chrono::nanoseconds(1));
    EXPECT_TRUE(ahead.take(guid(1)));
    clock.set(end);
    EXPECT_FALSE(ahead.take(guid(2)));
    EXPECT_EQ(missing(), guids(3, 4)) << "and asked for anew";
    answer(guids(2, 4));
    EXPECT_TRUE(ahead.take(guid(3)));
}

TEST_F(LookAheadInTime, ANewHintMakesNothingYounger) {
    ahead.expect(Pointers(guids(0, 3)).data());
    ahead.take(guid(0));
    answer(guids(0, 3));
    clock.advance(std::chrono::seconds(1));
    ahead.expect(Pointers(guids(1, 3)).data());
    EXPECT_TRUE(ahead.take(guid(1)));
    clock.advance(std::chrono::seconds(1));
    EXPECT_FALSE(ahead.take(guid(2)));
}

TEST_F(LookAheadInTime, OneThatIsExpectedTwiceComesTwice) {
    const std::string a = guid(1), b = guid(2);
    ahead.expect(Pointers({guid(0), a, a, b}).data());
    ahead.take(guid(0));
    answer({guid(0), a, a, b});
    EXPECT_TRUE(ahead.take(a));
    EXPECT_TRUE(ahead.take(a));
    EXPECT_TRUE(ahead.take(b));
}

TEST_F(LookAheadInTime, TheObjectThatWasAskedForIsNoneOfThoseExpected) {
    const std::string a = guid(1), b = guid(2);
    ahead.expect(Pointers({a, b, a}).data());
    ahead.take(a);
    answer({a, b});
    EXPECT_TRUE(ahead.take(b));
    EXPECT_FALSE(ahead.take(a));
}

TEST_F(LookAheadInTime, GuidsAreComparedWithoutRegardToCase) {
    const std::string lower = "0000abcd-0000-0000-0000-000000000000";
    const std::string upper = "0000ABCD-0000-0000-0000-000000000000";
    ahead.expect(Pointers({guid(0), upper}).data());
    ahead.take(guid(0));
    answer({guid(0), lower});
    EXPECT_TRUE(ahead.take(upper));
}

}  // namespace
}  // namespace vextest
