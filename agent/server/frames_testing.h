// SPDX-License-Identifier: Apache-2.0
// What a client sends and reads, for tests.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "agent/server/frames.h"
#include "vex/wire.h"

namespace vexagent {

namespace wire = vex::wire;

// A frame as it is sent: its length first.
inline Bytes framed(const Bytes& body) {
    Bytes frame;
    for (std::size_t i = 0; i < wire::kLengthBytes; ++i)
        frame.push_back(static_cast<std::uint8_t>(body.size() >> 8 * i));
    frame.insert(frame.end(), body.begin(), body.end());
    return frame;
}

// A request's bytes, without the length. Each of the options is set to 1.
template <typename Make>
Bytes requestFrame(std::uint64_t id, wire::Body kind, Make make, const std::vector<int>& options = {}) {
    flatbuffers::FlatBufferBuilder builder;
    const auto body = make(builder).Union();
    std::vector<flatbuffers::Offset<wire::Option>> set;
    for (const int option : options) set.push_back(wire::CreateOption(builder, option, 1));
    const auto list = builder.CreateVector(set);
    builder.Finish(wire::CreateRequest(builder, id, list, kind, body), wire::kRequestIdentifier);
    return {builder.GetBufferPointer(), builder.GetBufferPointer() + builder.GetSize()};
}

inline Bytes searchFrame(std::uint64_t id, const std::string& filter, int scope = 2,
                         const std::vector<std::string>& names = {}) {
    return requestFrame(id, wire::Body::SearchOpen, [&](auto& builder) {
        const auto text = builder.CreateString(filter);
        const auto list = builder.CreateVectorOfStrings(names);
        return wire::CreateSearchOpen(builder, 0, text, 0, list, scope);
    });
}

inline Bytes lookupFrame(std::uint64_t id, const std::string& guid, const std::vector<std::string>& more,
                         const std::vector<int>& options = {}) {
    const auto make = [&](auto& builder) {
        const auto text = builder.CreateString(guid);
        return wire::CreateLookup(builder, text, more.empty() ? 0 : builder.CreateVectorOfStrings(more));
    };
    return requestFrame(id, wire::Body::Lookup, make, options);
}

// A search, a fetch, a look-up or a log-in that has one text in all its places, and so
// many times as a requested attribute or a GUID to come; the text, and an option, are
// there once.
inline Bytes sharingFrame(wire::Body kind, const std::string& text, std::size_t references,
                          std::size_t options) {
    flatbuffers::FlatBufferBuilder builder;
    const auto one = builder.CreateString(text);
    const auto option = wire::CreateOption(builder, 1, 1);
    const auto names =
        builder.CreateVector(std::vector<flatbuffers::Offset<flatbuffers::String>>(references, one));
    const auto list = builder.CreateVector(std::vector<flatbuffers::Offset<wire::Option>>(options, option));
    flatbuffers::Offset<void> body;
    if (kind == wire::Body::SearchOpen)
        body = wire::CreateSearchOpen(builder, one, one, one, names).Union();
    else if (kind == wire::Body::Fetch)
        body = wire::CreateFetch(builder, one, one, names).Union();
    else if (kind == wire::Body::Lookup)
        body = wire::CreateLookup(builder, one, names).Union();
    else if (kind == wire::Body::ChangePassword)
        body = wire::CreateChangePassword(builder, one, one, one).Union();
    else
        body = wire::CreateAuthenticate(builder, one, one).Union();
    builder.Finish(wire::CreateRequest(builder, 1, list, kind, body), wire::kRequestIdentifier);
    return {builder.GetBufferPointer(), builder.GetBufferPointer() + builder.GetSize()};
}

inline Bytes nextFrame(std::uint64_t id, std::uint64_t search) {
    return requestFrame(id, wire::Body::SearchNext,
                        [&](auto& builder) { return wire::CreateSearchNext(builder, search); });
}

inline Bytes closeFrame(std::uint64_t id, std::uint64_t search) {
    return requestFrame(id, wire::Body::SearchClose,
                        [&](auto& builder) { return wire::CreateSearchClose(builder, search); });
}

inline Bytes healthFrame(std::uint64_t id) {
    return requestFrame(id, wire::Body::Health, [](auto& builder) { return wire::CreateHealth(builder); });
}

inline Bytes loginFrame(std::uint64_t id, const std::string& user, const std::string& password,
                        const std::vector<int>& options = {}) {
    const auto make = [&](auto& builder) {
        const auto name = builder.CreateString(user);
        return wire::CreateAuthenticate(builder, name, builder.CreateString(password));
    };
    return requestFrame(id, wire::Body::Authenticate, make, options);
}

inline Bytes changeFrame(std::uint64_t id, const std::string& user, const std::string& oldPassword,
                         const std::string& newPassword) {
    return requestFrame(id, wire::Body::ChangePassword, [&](auto& builder) {
        const auto name = builder.CreateString(user);
        const auto before = builder.CreateString(oldPassword);
        return wire::CreateChangePassword(builder, name, before, builder.CreateString(newPassword));
    });
}

struct Reply {
    std::uint64_t id = 0;
    int code = -1;
    int errSystem = 0;
    int errCode = 0;
    std::string errText;
    std::uint64_t search = 0;
    int total = 0;
    int condition = -1;
    std::vector<std::string> dns;
};

// Reads a response's frame, length included, as a client that trusts nothing.
inline Reply readReply(const Bytes& frame) {
    Reply reply;
    std::uint32_t length = 0;
    for (std::size_t i = wire::kLengthBytes; i-- > 0;) length = length << 8 | frame.at(i);
    EXPECT_EQ(length + wire::kLengthBytes, frame.size());
    const Bytes body(frame.begin() + wire::kLengthBytes, frame.end());
    flatbuffers::Verifier verifier(body.data(), body.size(), wire::kMaxDepth, wire::kMaxTables);
    EXPECT_TRUE(verifier.VerifyBuffer<wire::Response>(wire::kResponseIdentifier));
    const auto* response = flatbuffers::GetRoot<wire::Response>(body.data());
    reply.id = response->id();
    reply.code = response->code();
    reply.search = response->search();
    reply.total = response->total();
    reply.condition = response->condition();
    if (response->error() != nullptr) {
        reply.errSystem = response->error()->system();
        reply.errCode = response->error()->code();
        reply.errText = response->error()->text()->str();
    }
    if (response->objects() != nullptr)
        for (const wire::PackedObject* packed : *response->objects())
            reply.dns.push_back(packed->bytes_nested_root()->attributes()->Get(0)->values()->Get(0)->str());
    return reply;
}

}  // namespace vexagent
