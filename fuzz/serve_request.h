// SPDX-License-Identifier: Apache-2.0
// What the agent does with one client's request, whatever is in its frame.
#pragma once

#include <cstdint>

#include "agent/server/service.h"

inline void serveRequest(vexagent::Directory& directory, const vexagent::Bytes& frame) {
    const vex::wire::Request* request = vexagent::readRequest(frame);
    if (request == nullptr) return;
    vexagent::Service service(directory, vorn::systemTime, [] { return std::uint64_t{1}; });
    const vexagent::Client client{1, 1};
    service.connected(client);
    service.lane(*request);
    service.handle(client, *request);
    service.disconnected(client);
}
