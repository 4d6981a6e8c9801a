// SPDX-License-Identifier: Apache-2.0
// What the tests of an agent that fails its client share: calls, and answers to them.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <utility>

#include "vex/handles.h"
#include "vex/scripted_agent_testing.h"

namespace vextest {

inline vex::UniqueSession openSession() {
    vexSession* session = nullptr;
    EXPECT_EQ(vexSessionOpen(VEX_SESSION_LOCAL, VEX_INTERFACE_LEVEL, &session), VEX_OK);
    return vex::UniqueSession(session);
}

inline vexCode lookUp(vexSession* session) {
    vexObject* object = nullptr;
    const vexCode code = vexLookupObjectByGuid(session, "x", &object);
    vexFreeObject(object);
    return code;
}

// The code of the call that ends a search of everything.
inline vexCode readAll(vexSession* session) {
    vexSearchHandle* search = nullptr;
    vexCode code = vexLdapSearchOpen(session, "", "", "", nullptr, 2, -1, 0, &search);
    if (code != VEX_OK) return code;
    vexObject* object = nullptr;
    while ((code = vexLdapSearchNext(search, &object)) == VEX_OK) vexFreeObject(object);
    vexLdapSearchClose(search);
    return code;
}

inline void answerWell(const Peer& peer, const vex::wire::Request& request) {
    if (request.body_type() == vex::wire::Body::SearchClose) return;  // one-way
    peer.answer(request, {.objects = {packed(person("ann"))}, .total = 1});
}

inline std::string goodAnswer(const vex::wire::Request& request) {
    return response(request.id(), {.objects = {packed(person("ann"))}, .total = 1});
}

inline AttributeList personWithout(const std::string& name) {
    AttributeList attributes = person("ann");
    std::erase_if(attributes, [&](const auto& attribute) { return attribute.first == name; });
    return attributes;
}

inline void answerObject(const Peer& peer, const vex::wire::Request& request, const std::string& object) {
    peer.answer(request, {.objects = {object}});
}

// Runs a call and expects its code, in good time.
template <typename Call>
inline void expectInTime(vexCode code, Call&& call) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(call(), code);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4))
        << "the deadline is one second";
}

}  // namespace vextest
