// SPDX-License-Identifier: Apache-2.0
#include "bench/load/ber.h"

namespace load {

namespace {

constexpr std::size_t kShortLength = 0x80;  // lengths below it are one byte

// The bytes of tag and length, and of the content; none when there are too few to tell.
struct Header {
    std::size_t header = 0;
    std::size_t content = 0;
};

Header readHeader(std::string_view bytes) {
    if (bytes.size() < 2) return {};
    const auto first = static_cast<std::uint8_t>(bytes[1]);
    if (first < kShortLength) return {2, first};
    const std::size_t count = first & 0x7f;
    if (count == 0 || count > 4)
        throw ProtocolError("an element without a definite length of at most 4 bytes");
    if (bytes.size() < 2 + count) return {};
    std::size_t length = 0;
    for (const char byte : bytes.substr(2, count)) length = length << 8 | static_cast<std::uint8_t>(byte);
    return {2 + count, length};
}

std::string bigEndian(std::size_t value) {
    std::string bytes;
    for (; value > 0; value >>= 8) bytes.insert(bytes.begin(), static_cast<char>(value & 0xff));
    return bytes;
}

}  // namespace

std::string element(std::uint8_t tag, std::string_view content) {
    std::string bytes(1, static_cast<char>(tag));
    if (content.size() < kShortLength) {
        bytes += static_cast<char>(content.size());
    } else {
        const std::string length = bigEndian(content.size());
        bytes += static_cast<char>(kShortLength | length.size());
        bytes += length;
    }
    return bytes.append(content);
}

std::string number(std::uint8_t tag, std::uint32_t value) {
    std::string bytes = bigEndian(value);
    // The first bit is the sign.
    if (bytes.empty() || (bytes[0] & 0x80) != 0) bytes.insert(bytes.begin(), '\0');
    return element(tag, bytes);
}

std::size_t elementSize(std::string_view bytes) {
    const Header header = readHeader(bytes);
    return header.header + header.content;
}

std::string_view BerReader::take(std::uint8_t expected) {
    const Header header = readHeader(m_rest);
    if (header.header == 0 || m_rest.size() - header.header < header.content) {
        throw ProtocolError("an element that does not end where it says");
    }
    if (tag() != expected) throw ProtocolError("an element of another kind than expected");
    const std::string_view content = m_rest.substr(header.header, header.content);
    m_rest.remove_prefix(header.header + header.content);
    return content;
}

std::uint32_t BerReader::takeNumber(std::uint8_t expected) {
    const std::string_view bytes = take(expected);
    if (bytes.empty() || bytes.size() > 4 || (bytes[0] & 0x80) != 0) {
        throw ProtocolError("a number that is negative or too large");
    }
    std::uint32_t value = 0;
    for (const char byte : bytes) value = value << 8 | static_cast<std::uint8_t>(byte);
    return value;
}

}  // namespace load
