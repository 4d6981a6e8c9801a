// SPDX-License-Identifier: Apache-2.0
#include "agent/directory/identifiers.h"

#include <array>
#include <boost/uuid/name_generator_sha1.hpp>
#include <boost/uuid/uuid.hpp>
#include <charconv>
#include <cstring>

#include "vorn/escape.h"

namespace vexagent {
namespace {

// Where each byte of the text form stands in the stored form: the first three
// fields are stored with their least significant byte first.
constexpr std::array<std::uint8_t, kGuidBytes> kPlaces = {3, 2, 1,  0,  5,  4,  7,  6,
                                                          8, 9, 10, 11, 12, 13, 14, 15};

constexpr std::size_t kSidHeader = 8;
constexpr std::size_t kMaxSubAuthorities = 15;

bool dashBefore(std::size_t byte) {
    return byte == 4 || byte == 6 || byte == 8 || byte == 10;
}

bool isSid(std::string_view bytes) {
    if (bytes.size() < kSidHeader + 4 || bytes[0] != 1) return false;
    const auto count = static_cast<std::uint8_t>(bytes[1]);
    return count >= 1 && count <= kMaxSubAuthorities && bytes.size() == kSidHeader + std::size_t{4} * count;
}

std::uint32_t little32(std::string_view bytes, std::size_t at) {
    std::uint32_t value = 0;
    for (std::size_t i = 4; i-- > 0;) value = value << 8 | static_cast<std::uint8_t>(bytes[at + i]);
    return value;
}

void appendLittle32(std::string& bytes, std::uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8) bytes.push_back(static_cast<char>(value >> shift & 0xff));
}

// Takes "-NUMBER" from the front of text.
template <typename Number>
bool takeNumber(std::string_view& text, Number& value) {
    if (text.empty() || text.front() != '-') return false;
    text.remove_prefix(1);
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc()) return false;
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return true;
}

}  // namespace

std::string guidText(std::string_view bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    if (bytes.size() != kGuidBytes) return {};
    std::string text;
    text.reserve(36);
    for (std::size_t i = 0; i < kGuidBytes; ++i) {
        if (dashBefore(i)) text.push_back('-');
        const auto byte = static_cast<std::uint8_t>(bytes[kPlaces[i]]);
        text.push_back(kDigits[byte >> 4]);
        text.push_back(kDigits[byte & 0xf]);
    }
    return text;
}

std::optional<std::string> guidBytes(std::string_view text) {
    if (text.size() == 38 && text.front() == '{' && text.back() == '}') text = text.substr(1, 36);
    if (text.size() != 36) return std::nullopt;
    std::string bytes(kGuidBytes, '\0');
    std::size_t at = 0;
    for (std::size_t i = 0; i < kGuidBytes; ++i) {
        if (dashBefore(i) && text[at++] != '-') return std::nullopt;
        const int high = vorn::hexDigit(text[at]);
        const int low = vorn::hexDigit(text[at + 1]);
        if (high < 0 || low < 0) return std::nullopt;
        bytes[kPlaces[i]] = static_cast<char>(high << 4 | low);
        at += 2;
    }
    return bytes;
}

std::string guidFromName(std::string_view name) {
    boost::uuids::name_generator_sha1 generator(boost::uuids::ns::x500dn());
    const boost::uuids::uuid uuid = generator(name.data(), name.size());
    std::string bytes(kGuidBytes, '\0');
    for (std::size_t i = 0; i < kGuidBytes; ++i) bytes[kPlaces[i]] = static_cast<char>(uuid.data[i]);
    return bytes;
}

std::optional<std::string> sidBytes(std::string_view text) {
    if (text.size() < 2 || (text[0] != 'S' && text[0] != 's')) return std::nullopt;
    text.remove_prefix(1);
    std::uint8_t revision = 0;
    std::uint64_t authority = 0;
    if (!takeNumber(text, revision) || revision != 1) return std::nullopt;
    if (!takeNumber(text, authority) || authority >> 48 != 0) return std::nullopt;
    std::string subAuthorities;
    while (!text.empty()) {
        std::uint32_t value = 0;
        if (!takeNumber(text, value)) return std::nullopt;
        appendLittle32(subAuthorities, value);
    }
    const std::size_t count = subAuthorities.size() / 4;
    if (count < 1 || count > kMaxSubAuthorities) return std::nullopt;
    std::string bytes = {1, static_cast<char>(count)};
    for (int shift = 40; shift >= 0; shift -= 8)
        bytes.push_back(static_cast<char>(authority >> shift & 0xff));
    return bytes + subAuthorities;
}

std::string sidText(std::string_view bytes) {
    if (!isSid(bytes)) return {};
    std::uint64_t authority = 0;
    for (std::size_t i = 2; i < kSidHeader; ++i)
        authority = authority << 8 | static_cast<std::uint8_t>(bytes[i]);
    std::string text = "S-1-" + std::to_string(authority);
    for (std::size_t at = kSidHeader; at < bytes.size(); at += 4)
        text += "-" + std::to_string(little32(bytes, at));
    return text;
}

std::optional<std::uint32_t> sidRid(std::string_view bytes) {
    if (!isSid(bytes)) return std::nullopt;
    return little32(bytes, bytes.size() - 4);
}

std::string sidWithRid(std::string_view bytes, std::uint32_t rid) {
    if (!isSid(bytes)) return {};
    std::string other(bytes.substr(0, bytes.size() - 4));
    appendLittle32(other, rid);
    return other;
}

}  // namespace vexagent
