// SPDX-License-Identifier: Apache-2.0
#include "standard/guid.h"

#include <algorithm>

#include "vorn/escape.h"

namespace standard {
namespace {

constexpr std::size_t kBytes = 16;
constexpr std::size_t kTextBytes = 36;

bool isHyphen(std::size_t at) {
    return at == 8 || at == 13 || at == 18 || at == 23;
}

std::optional<std::string> bytesOfText(std::string_view text) {
    if (text.size() != kTextBytes) return std::nullopt;
    std::string bytes;
    for (std::size_t at = 0; at < text.size();) {
        if (isHyphen(at)) {
            if (text[at++] != '-') return std::nullopt;
            continue;
        }
        const int high = vorn::hexDigit(text[at]);
        const int low = vorn::hexDigit(text[at + 1]);
        if (high < 0 || low < 0) return std::nullopt;
        bytes += static_cast<char>(high << 4 | low);
        at += 2;
    }
    return bytes;
}

// From the one order of bytes to the other.
void turnNumbers(std::string* bytes) {
    std::reverse(bytes->begin(), bytes->begin() + 4);
    std::reverse(bytes->begin() + 4, bytes->begin() + 6);
    std::reverse(bytes->begin() + 6, bytes->begin() + 8);
}

}  // namespace

std::optional<std::string> guidOfUuid(std::string_view uuid) {
    std::optional<std::string> bytes =
        uuid.size() == kBytes ? std::optional(std::string(uuid)) : bytesOfText(uuid);
    if (!bytes) return std::nullopt;
    turnNumbers(&*bytes);
    return bytes;
}

std::string uuidOfGuid(std::string_view guid) {
    static constexpr char kDigits[] = "0123456789abcdef";
    if (guid.size() != kBytes) return "";
    std::string bytes(guid);
    turnNumbers(&bytes);
    std::string text;
    for (const char c : bytes) {
        if (isHyphen(text.size())) text += '-';
        const auto byte = static_cast<unsigned char>(c);
        text += {kDigits[byte >> 4], kDigits[byte & 15]};
    }
    return text;
}

}  // namespace standard
