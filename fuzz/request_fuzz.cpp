// SPDX-License-Identifier: Apache-2.0
// A client that lies to the agent: any bytes as a request's frame.

#include <cstddef>
#include <cstdint>

#include "agent/directory/fake_directory_testing.h"
#include "serve_request.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vexagent;
    const Bytes frame(data, data + size);
    FakeDirectory directory;
    serveRequest(directory, frame);
    return 0;
}
