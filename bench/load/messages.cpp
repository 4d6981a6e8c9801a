// SPDX-License-Identifier: Apache-2.0
#include "bench/load/messages.h"

namespace load {

namespace {

constexpr std::uint8_t kSimple = 0x80;
constexpr std::uint8_t kControls = 0xa0;
constexpr char kPagedResults[] = "1.2.840.113556.1.4.319";

// The place of the id's four bytes: behind the sequence's header and their own.
std::size_t idAt(std::string_view message) {
    const auto length = static_cast<std::uint8_t>(message[1]);
    return (length < 0x80 ? 2 : 2 + (length & 0x7f)) + 2;
}

}  // namespace

std::string searchRequest(const SearchSpec& spec) {
    std::string attributes;
    for (const std::string& name : spec.attributes) attributes += element(kOctetString, name);
    constexpr std::uint32_t kNeverDereference = 0;
    constexpr std::uint32_t kNoLimit = 0;
    return element(kSearchRequest, element(kOctetString, spec.base) + number(kEnumerated, spec.scope) +
                                       number(kEnumerated, kNeverDereference) + number(kInteger, kNoLimit) +
                                       number(kInteger, kNoLimit) + element(kBoolean, std::string(1, '\0')) +
                                       encodeFilter(spec.filter) + element(kSequence, attributes));
}

std::string bindRequest(std::string_view dn, std::string_view password) {
    constexpr std::uint32_t kVersion = 3;
    return element(kBindRequest,
                   number(kInteger, kVersion) + element(kOctetString, dn) + element(kSimple, password));
}

std::string pagedControl(std::uint32_t pageSize, std::string_view cookie) {
    const std::string value = element(kSequence, number(kInteger, pageSize) + element(kOctetString, cookie));
    return element(kSequence, element(kOctetString, kPagedResults) + element(kOctetString, value));
}

std::string message(std::string_view operation, std::string_view control) {
    std::string content = number(kInteger, kFirstMessageId);
    content += operation;
    if (!control.empty()) content += element(kControls, control);
    return element(kSequence, content);
}

void setMessageId(std::string* message, std::uint32_t id) {
    char* const place = message->data() + idAt(*message);
    for (int i = 0; i < 4; ++i) place[i] = static_cast<char>(id >> (24 - 8 * i));
}

std::string unbindMessage() {
    return message(element(kUnbindRequest, ""));
}

std::size_t readMessage(std::string_view bytes, Reply* reply) {
    const std::size_t size = elementSize(bytes);
    if (size == 0 || size > bytes.size()) return 0;
    BerReader outer(bytes.substr(0, size));
    BerReader inner(outer.take(kSequence));
    reply->id = inner.takeNumber(kInteger);
    reply->operation = inner.tag();
    reply->body = inner.take(reply->operation);
    reply->controls = inner.atEnd() ? std::string_view() : inner.take(kControls);
    return size;
}

std::uint32_t resultCode(const Reply& reply) {
    return BerReader(reply.body).takeNumber(kEnumerated);
}

std::string pagedCookie(const Reply& reply) {
    for (BerReader controls(reply.controls); !controls.atEnd();) {
        BerReader control(controls.take(kSequence));
        if (control.take(kOctetString) != kPagedResults) continue;
        if (control.tag() == kBoolean) control.take(kBoolean);
        BerReader value(control.take(kOctetString));
        BerReader page(value.take(kSequence));
        page.takeNumber(kInteger);
        return std::string(page.take(kOctetString));
    }
    return {};
}

}  // namespace load
