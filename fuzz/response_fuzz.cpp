// SPDX-License-Identifier: Apache-2.0
// An agent that lies to a client: any bytes, received as a frame, verified as a
// response, and then all that a program can read of it. An input is a frame, its
// length in front; the bytes behind that are looked at whatever the length says.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>
#include <vector>

#include "vex/exchange.h"
#include "vex/handles.h"
#include "vex/object.h"

namespace {

// Reads every byte, so that none may lie outside of what was allocated.
void touch(const void* bytes, std::size_t size) {
    static volatile unsigned sum;
    for (std::size_t i = 0; i < size; ++i) sum = sum + static_cast<const unsigned char*>(bytes)[i];
}

void must(bool holds) {
    if (!holds) std::abort();
}

void readAttribute(const vexObject* object, const char* name) {
    vex::BlobList list;
    if (list.read(nullptr, object, name) != VEX_OK) return;
    for (int i = 0; i < list.count(); ++i) {
        touch(list.values()[i].data, list.values()[i].length + 1);
        must(list.values()[i].data[list.values()[i].length] == 0);
    }
    vex::UniqueString text;
    int truth = 0;
    must((vex::readAttribute(nullptr, object, name, &text) == VEX_OK) == (list.count() > 0));
    must((vexGetAttributeBool(nullptr, object, name, &truth) == VEX_OK) == (list.count() > 0));
}

void readObject(std::span<const std::uint8_t> bytes) {
    const vex::UniqueObject object(new vexObject{vex::ObjectRef::copyOf(bytes)});
    const vex::UniqueObject clone(ChmCloneObject(object.get()));
    unsigned cursor = 0;
    char* name = nullptr;
    vexCode code = vexGetFirstAttribute(nullptr, clone.get(), &cursor, &name);
    for (int i = 0; code == VEX_OK; ++i) {
        const vex::UniqueString owner(name);
        touch(name, std::strlen(name) + 1);
        if (i < 64) readAttribute(clone.get(), name);
        code = vexGetNextAttribute(nullptr, clone.get(), &cursor, &name);
    }
    for (const char* required : {AD_OBJECT_DN_TEXT, AD_OBJECT_GUID_TEXT, VORN_OBJECT_CATEGORY}) {
        vex::UniqueString text;
        must(vex::readAttribute(nullptr, object.get(), required, &text) == VEX_OK);
    }
}

void readResponse(std::span<const std::uint8_t> bytes) {
    if (!vex::isSoundResponse(bytes)) return;
    const auto& response = *flatbuffers::GetRoot<vex::wire::Response>(bytes.data());
    if (response.names())
        for (const auto* name : *response.names()) touch(name->c_str(), name->size() + 1);
    if (response.error() && response.error()->text())
        touch(response.error()->text()->c_str(), response.error()->text()->size() + 1);
    if (response.objects())
        for (const auto* packed : *response.objects())
            readObject({packed->bytes()->data(), packed->bytes()->size()});
}

// Through a socket, whose other side then hangs up.
void receiveFrame(std::span<const std::uint8_t> stream) {
    int ends[2];
    must(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0);
    const bool sent = ::send(ends[1], stream.data(), stream.size(), MSG_DONTWAIT | MSG_NOSIGNAL) ==
                      static_cast<ssize_t>(stream.size());
    ::close(ends[1]);
    const vex::Endpoint endpoint{"", vex::Milliseconds(1000)};
    vex::Connection connection(endpoint, ends[0]);
    const auto bytes = connection.receive(endpoint.deadline());
    must(bytes.size() <= stream.size() || !sent);
    if (!bytes.empty()) readResponse(bytes);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr std::size_t kLargest = std::size_t{64} << 10;  // what a socket holds at once
    if (size < 4 || size > kLargest) return 0;
    receiveFrame({data, size});
    // At an address that is fit for FlatBuffers, and at its exact size, so that a read beyond it is seen.
    const std::vector<std::uint8_t> bytes(data + 4, data + size);
    readResponse(bytes);
    return 0;
}
