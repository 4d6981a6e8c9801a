// SPDX-License-Identifier: Apache-2.0
// LDAP messages (RFC 4511): the requests that a load run sends, made once and sent
// many times, and what it reads of the answers.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "bench/load/ber.h"

namespace load {

enum Operation : std::uint8_t {
    kBindRequest = 0x60,
    kBindResponse = 0x61,
    kUnbindRequest = 0x42,
    kSearchRequest = 0x63,
    kSearchResultEntry = 0x64,
    kSearchResultDone = 0x65,
    kSearchResultReference = 0x73,
};

// Message ids are always written in four bytes, so that one can be written over
// another: from this one to the largest that RFC 4511 allows.
constexpr std::uint32_t kFirstMessageId = 0x01000000;
constexpr std::uint32_t kLastMessageId = 0x7fffffff;

struct SearchSpec {
    std::string base;
    std::uint32_t scope = 2;
    std::string filter = "(objectClass=*)";  // RFC 4515 text
    std::vector<std::string> attributes;     // none: all
};

// A filter in BER: AND, OR, NOT, equality, presence, >= and <= of RFC 4515, with
// its \xx escapes. Throws std::invalid_argument for anything else.
std::string encodeFilter(std::string_view text);

// Protocol operations and controls, to be put into a message.
std::string searchRequest(const SearchSpec& spec);
std::string bindRequest(std::string_view dn, std::string_view password);
std::string pagedControl(std::uint32_t pageSize, std::string_view cookie);  // RFC 2696

// A whole message; its id is kFirstMessageId. The control may be empty.
std::string message(std::string_view operation, std::string_view control = {});
void setMessageId(std::string* message, std::uint32_t id);
std::string unbindMessage();

// A message that was received. Views into the bytes that it was read from.
struct Reply {
    std::uint32_t id = 0;
    std::uint8_t operation = 0;
    std::string_view body;      // the operation's content
    std::string_view controls;  // their content; may be empty
};

// Reads one message. Returns the bytes that it takes, or 0 when it is not whole
// yet. Throws ProtocolError.
std::size_t readMessage(std::string_view bytes, Reply* reply);

// The result code of a reply that ends an operation.
std::uint32_t resultCode(const Reply& reply);
// The cookie of the paged results control: empty when no page follows. A last page
// may also come without the control.
std::string pagedCookie(const Reply& reply);

}  // namespace load
