// SPDX-License-Identifier: Apache-2.0
// Answers and greetings of an agent that are none.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "vex/troubles_testing.h"
#include "vex/wire.h"

namespace vextest {
namespace {

using vex::UniqueSession;
namespace wire = vex::wire;

AttributeList personWithEmpty(const std::string& name) {
    AttributeList attributes = personWithout(name);
    attributes.push_back({name, {""}});
    return attributes;
}

// A few thousand bytes that claim half a billion values: one list of values,
// shared by all attributes.
std::string bomb() {
    flatbuffers::FlatBufferBuilder builder;
    const auto value = builder.CreateString("v");
    const auto name = builder.CreateString("cn");
    const std::vector<flatbuffers::Offset<flatbuffers::String>> values(20'000, value);
    const auto attribute = wire::CreateAttribute(builder, name, builder.CreateVector(values));
    const std::vector<flatbuffers::Offset<wire::Attribute>> attributes(25'000, attribute);
    builder.Finish(wire::CreateObject(builder, builder.CreateVector(attributes)));
    return {reinterpret_cast<const char*>(builder.GetBufferPointer()), builder.GetSize()};
}

// One packed object, or one name, counted many times.
std::string repeated(std::uint64_t id, bool names) {
    flatbuffers::FlatBufferBuilder builder;
    const std::string object = packed(person(std::string(100'000, 'x')));
    flatbuffers::Offset<flatbuffers::Vector<flatbuffers::Offset<wire::PackedObject>>> objectList;
    flatbuffers::Offset<flatbuffers::Vector<flatbuffers::Offset<flatbuffers::String>>> nameList;
    if (names) {
        const auto name = builder.CreateString(object);
        nameList = builder.CreateVector(std::vector(1'000'000, name));
    } else {
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(object.data());
        const auto one = wire::CreatePackedObject(builder, builder.CreateVector(bytes, object.size()));
        objectList = builder.CreateVector(std::vector(200, one));
    }
    builder.Finish(wire::CreateResponse(builder, id, 0, 0, objectList, 0, 0, nameList),
                   wire::kResponseIdentifier);
    return {reinterpret_cast<const char*>(builder.GetBufferPointer()), builder.GetSize()};
}

// A number that stands for a field that is not there.
constexpr int kLeftOut = -1;

struct Fault {
    const char* name;
    ScriptedAgent::Handler handler;
};

void PrintTo(const Fault& fault, std::ostream* out) {
    *out << fault.name;
}

// Each ends a look-up and a search alike, whatever it is, as a broken session.
const Fault kFaults[] = {
    {"hangs_up", [](const Peer& peer, const wire::Request&) { peer.hangUp(); }},
    {"never_answers", [](const Peer&, const wire::Request&) {}},
    {"answers_late",
     [](const Peer& peer, const wire::Request& request) {
         peer.waitUntilClientGone();
         answerWell(peer, request);
     }},
    {"stops_within_the_length",
     [](const Peer& peer, const wire::Request& request) {
         peer.send(frame(goodAnswer(request)).substr(0, 3));
     }},
    {"stops_within_the_frame",
     [](const Peer& peer, const wire::Request& request) {
         const std::string whole = frame(goodAnswer(request));
         peer.send(whole.substr(0, whole.size() - 1));
     }},
    {"hangs_up_within_the_frame",
     [](const Peer& peer, const wire::Request& request) {
         peer.send(frame(goodAnswer(request)).substr(0, 100));
         peer.hangUp();
     }},
    {"empty_frame", [](const Peer& peer, const wire::Request&) { peer.send(frame("")); }},
    {"one_byte", [](const Peer& peer, const wire::Request&) { peer.send(frame("x")); }},
    {"length_beyond_the_limit",
     [](const Peer& peer, const wire::Request&) {
         peer.send({"\x01\x00\x00\x04", 4});
     }},
    {"length_all_ones", [](const Peer& peer, const wire::Request&) { peer.send("\xff\xff\xff\xff"); }},
    {"largest_length_and_nothing_else",
     [](const Peer& peer, const wire::Request&) {
         peer.send({"\x00\x00\x00\x04", 4});
     }},
    {"length_too_small",
     [](const Peer& peer, const wire::Request& request) {
         std::string bytes = frame(goodAnswer(request));
         bytes[0] = static_cast<char>(bytes[0] - 8);
         peer.send(bytes);
     }},
    {"a_byte_too_many",
     [](const Peer& peer, const wire::Request& request) { peer.send(frame(goodAnswer(request)) + "x"); }},
    {"two_answers",
     [](const Peer& peer, const wire::Request& request) {
         peer.send(frame(goodAnswer(request)) + frame(goodAnswer(request)));
     }},
    {"answer_to_the_request_before",
     [](const Peer& peer, const wire::Request& request) {
         peer.send(frame(response(request.id() - 1, {.objects = {packed(person("ann"))}})));
     }},
    {"answer_to_the_request_to_come",
     [](const Peer& peer, const wire::Request& request) {
         peer.send(frame(response(request.id() + 1, {.objects = {packed(person("ann"))}})));
     }},
    {"answer_without_a_code",
     [](const Peer& peer, const wire::Request& request) {
         peer.answer(request, {.code = kLeftOut, .objects = {packed(person("ann"))}, .total = 1});
     }},
    {"answer_with_a_code_below_all",
     [](const Peer& peer, const wire::Request& request) {
         peer.answer(request, {.code = INT_MIN, .objects = {packed(person("ann"))}, .total = 1});
     }},
    {"another_identifier",
     [](const Peer& peer, const wire::Request& request) {
         std::string bytes = goodAnswer(request);
         bytes.replace(4, 4, wire::kRequestIdentifier);
         peer.send(frame(bytes));
     }},
    {"no_flatbuffer",
     [](const Peer& peer, const wire::Request&) {
         peer.send(frame(std::string("\x08\0\0\0VXR1", 8) + std::string(200, '\x7f')));
     }},
    {"object_without_dn",
     [](const Peer& peer, const wire::Request& r) { answerObject(peer, r, packed(personWithout("_dn"))); }},
    {"object_without_guid",
     [](const Peer& peer, const wire::Request& r) { answerObject(peer, r, packed(personWithout("_GUID"))); }},
    {"object_without_category",
     [](const Peer& peer, const wire::Request& r) {
         answerObject(peer, r, packed(personWithout("_objectCategory")));
     }},
    {"object_with_an_empty_dn",
     [](const Peer& peer, const wire::Request& r) { answerObject(peer, r, packed(personWithEmpty("_dn"))); }},
    {"object_without_attributes",
     [](const Peer& peer, const wire::Request& r) { answerObject(peer, r, packed({})); }},
    {"object_of_garbage",
     [](const Peer& peer, const wire::Request& r) { answerObject(peer, r, std::string(64, '\x7f')); }},
    {"object_of_nothing", [](const Peer& peer, const wire::Request& r) { answerObject(peer, r, ""); }},
    {"object_with_shared_values",
     [](const Peer& peer, const wire::Request& r) { answerObject(peer, r, bomb()); }},
    {"one_object_counted_often",
     [](const Peer& peer, const wire::Request& r) { peer.send(frame(repeated(r.id(), false))); }},
    {"one_name_counted_often",
     [](const Peer& peer, const wire::Request& r) { peer.send(frame(repeated(r.id(), true))); }},
    {"more_objects_than_a_batch_holds",
     [](const Peer& peer, const wire::Request& request) {
         peer.answer(request, {.objects = std::vector(wire::kBatchObjects + 1, packed(person("ann")))});
     }},
};

struct Faults : testing::TestWithParam<Fault> {
    ScriptedAgent agent{1};
};

TEST_P(Faults, EndsTheCallAndNotTheNextOne) {
    const UniqueSession session = openSession();
    for (const auto call : {&lookUp, &readAll}) {
        agent.onRequest(GetParam().handler);
        const int before = agent.requests();
        expectInTime(VEX_BROKEN_SESSION, [&] { return call(session.get()); });
        EXPECT_EQ(agent.requests(), before + 1) << "a request that arrived is not sent again";
        EXPECT_TRUE(agent.eventually([&] { return agent.openConnections() == 0; }))
            << "the connection is not used again";
        agent.onRequest(answerWell);
        EXPECT_EQ(lookUp(session.get()), VEX_OK);
    }
}

INSTANTIATE_TEST_SUITE_P(OfTheAgent, Faults, testing::ValuesIn(kFaults),
                         [](const auto& one) { return std::string(one.param.name); });

// What is not said is no success, of whatever was asked.
TEST(AnAnswerWithoutACode, IsNone) {
    ScriptedAgent agent;
    agent.onRequest([](const Peer& peer, const wire::Request& request) {
        peer.answer(request, {.code = kLeftOut, .objects = {packed(person("ann"))}, .names = {"cn"}});
    });
    const UniqueSession session = openSession();
    EXPECT_EQ(vexAuthValidatePlainTextUser(session.get(), "ann", "secret", 0), VEX_BROKEN_SESSION);
    vexObject* object = nullptr;
    EXPECT_EQ(vexLdapFetch(session.get(), "", "CN=ann", nullptr, &object), VEX_BROKEN_SESSION);
    EXPECT_EQ(object, nullptr);
    vexStringSet* names = nullptr;
    EXPECT_EQ(vexGetObjectSupportedAttributes(session.get(), &names), VEX_BROKEN_SESSION);
    EXPECT_EQ(names, nullptr);
    int condition = 77;
    EXPECT_EQ(vexSystemHealthInfo(session.get(), 0, &condition, nullptr, nullptr, nullptr),
              VEX_BROKEN_SESSION);
    EXPECT_EQ(condition, 77);
    EXPECT_TRUE(agent.eventually([&] { return agent.openConnections() == 0; }));
}

TEST(AnAnswerWithoutACondition, TellsNoHealth) {
    ScriptedAgent agent;
    agent.onRequest([](const Peer& peer, const wire::Request& request) {
        peer.answer(request, {.condition = kLeftOut});
    });
    const UniqueSession session = openSession();
    int condition = 77;
    EXPECT_EQ(vexSystemHealthInfo(session.get(), 0, &condition, nullptr, nullptr, nullptr),
              VEX_BROKEN_SESSION);
    EXPECT_EQ(condition, 77);
    EXPECT_TRUE(agent.eventually([&] { return agent.openConnections() == 0; }));
}

struct Greeting {
    const char* name;
    std::string bytes;
};

void PrintTo(const Greeting& greeting, std::ostream* out) {
    *out << greeting.name;
}

struct Greetings : testing::TestWithParam<Greeting> {};

TEST_P(Greetings, MakeNoSession) {
    ScriptedAgent agent(1);
    agent.greetWith(GetParam().bytes);
    vexSession* session = nullptr;
    expectInTime(VEX_BROKEN_SESSION, [&] { return vexSessionOpen(1, 21, &session); });
    EXPECT_TRUE(agent.eventually([&] { return agent.openConnections() == 0; }));
}

INSTANTIATE_TEST_SUITE_P(OfAnother, Greetings,
                         testing::Values(Greeting{"half", "VEXA"},
                                         Greeting{"magic", std::string("VEXB\1\0\0\0", 8)},
                                         Greeting{"version", std::string("VEXA\2\0\0\0", 8)},
                                         Greeting{"largeVersion", std::string("VEXA\1\0\0\1", 8)}),
                         [](const auto& one) { return std::string(one.param.name); });

}  // namespace
}  // namespace vextest
