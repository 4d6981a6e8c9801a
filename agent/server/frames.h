// SPDX-License-Identifier: Apache-2.0
// The bytes of requests and responses.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "agent/directory/directory.h"
#include "vex/protocol_generated.h"

namespace vexagent {

using Bytes = std::vector<std::uint8_t>;

// The request in a frame's bytes, once they have been verified; null for bytes
// that are none. It lives as long as the bytes.
const vex::wire::Request* readRequest(std::span<const std::uint8_t> frame);

// Why a request is refused before any of it is copied; null when it is not. Parts of a
// FlatBuffer may be shared, so a small buffer can stand for more text than there is memory.
const char* whyRefused(const vex::wire::Request& request);

// What a response carries besides its code.
struct Answer {
    Result result{};
    std::vector<Object> objects{};
    std::vector<std::string> names{};
    std::uint64_t search = 0;
    std::uint64_t total = 0;
    int condition = -1;  // of a health request; -1 for others
};

// A whole frame, its length in front. An answer that is larger than a frame may
// be becomes a failure that says so.
Bytes writeResponse(std::uint64_t id, const Answer& answer);

// The search that such a frame leaves open for its client; 0 for none.
std::uint64_t searchIn(const Bytes& response);

}  // namespace vexagent
