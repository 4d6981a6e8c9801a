// A client that lies to the agent: any bytes as a request's frame.

#include <cstddef>
#include <cstdint>

#include "agent/fake_directory.h"
#include "agent/service.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vexagent;
    const Bytes frame(data, data + size);
    const vex::wire::Request* request = readRequest(frame);
    if (request == nullptr) return 0;
    FakeDirectory directory;
    Service service(directory, vorn::systemTime, [] { return std::uint64_t{1}; });
    const Client client{1, 1};
    service.connected(client);
    service.lane(*request);
    service.handle(client, *request);
    service.disconnected(client);
    return 0;
}
