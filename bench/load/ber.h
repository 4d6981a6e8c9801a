// SPDX-License-Identifier: Apache-2.0
// The Basic Encoding Rules (X.690) as LDAP uses them (RFC 4511, section 5.1):
// definite lengths, tags of one byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace load {

enum Tag : std::uint8_t {
    kBoolean = 0x01,
    kInteger = 0x02,
    kOctetString = 0x04,
    kEnumerated = 0x0a,
    kSequence = 0x30,
};

// What came over the wire is not what was agreed.
class ProtocolError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

// One element: tag, length, content.
std::string element(std::uint8_t tag, std::string_view content);

// A number as INTEGER or ENUMERATED, in as few bytes as it takes; not negative.
std::string number(std::uint8_t tag, std::uint32_t value);

// A walk over elements that stand one behind the other. Owns no bytes.
class BerReader {
  public:
    explicit BerReader(std::string_view bytes) : m_rest(bytes) {}

    bool atEnd() const { return m_rest.empty(); }
    std::uint8_t tag() const { return m_rest.empty() ? 0 : static_cast<std::uint8_t>(m_rest[0]); }

    // The content of the next element. Throws ProtocolError when it has another
    // tag, or does not end where it says.
    std::string_view take(std::uint8_t tag);
    std::uint32_t takeNumber(std::uint8_t tag);

  private:
    std::string_view m_rest;
};

// How many bytes the element takes with which the bytes begin, tag and length
// included; 0 when there are too few to tell. Throws ProtocolError when it has no
// definite length of at most 4 bytes.
std::size_t elementSize(std::string_view bytes);

}  // namespace load
