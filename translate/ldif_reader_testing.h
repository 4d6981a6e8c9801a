// SPDX-License-Identifier: Apache-2.0
// A reader of LDIF lines for tests, written apart from the code that writes them.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct LdifLine {
    std::string name;
    std::string value;  // decoded
    bool base64;

    bool operator==(const LdifLine&) const = default;
};

inline std::string decodeBase64(std::string_view text) {
    static constexpr std::string_view kAlphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    if (text.size() % 4 != 0) throw std::invalid_argument("base64 of an odd length");
    std::string result;
    unsigned bits = 0;
    int held = 0;
    for (const char c : text.substr(0, text.find('='))) {
        const std::size_t digit = kAlphabet.find(c);
        if (digit == std::string_view::npos) throw std::invalid_argument("not base64");
        bits = bits << 6 | static_cast<unsigned>(digit);
        held += 6;
        if (held < 8) continue;
        held -= 8;
        result += static_cast<char>(bits >> held & 0xFF);
    }
    return result;
}

// One entry. Throws std::invalid_argument for what no LDIF reader would take.
inline std::vector<LdifLine> readLdif(std::string_view text) {
    std::vector<LdifLine> lines;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        if (end == std::string_view::npos) throw std::invalid_argument("a line without an end");
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(end + 1);
        const std::size_t colon = line.find(':');
        if (colon == std::string_view::npos || colon == 0)
            throw std::invalid_argument("a line without a name");
        std::string name(line.substr(0, colon));
        const std::string_view rest = line.substr(colon);
        if (rest.starts_with(":: ")) {
            lines.push_back({std::move(name), decodeBase64(rest.substr(3)), true});
        } else if (rest.starts_with(": ")) {
            const std::string_view value = rest.substr(2);
            for (const char c : value) {
                if (c == '\0' || c == '\r' || (!lines.empty() && static_cast<signed char>(c) < 0)) {
                    throw std::invalid_argument("an unsafe value in plain text");
                }
            }
            if (!value.empty() && (value[0] == ' ' || value[0] == ':' || value[0] == '<')) {
                throw std::invalid_argument("a value with an unsafe first character in plain text");
            }
            lines.push_back({std::move(name), std::string(value), false});
        } else {
            throw std::invalid_argument("no separator");
        }
    }
    return lines;
}
