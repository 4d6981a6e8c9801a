// SPDX-License-Identifier: Apache-2.0
// Values that are equal once they are prepared for comparison (RFC 4518) find each other:
// what the agent is asked for the one finds the other, however each is written.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "standard/agent_filter.h"
#include "vorn/escape.h"
#include "vorn/strings.h"

namespace {

// What one character may be written as; the first is the normal form. (What is not ASCII but
// prepared to be so, such as full-width letters, is the agent's to find.)
const std::vector<std::vector<std::string>>& characters() {
    static const auto& theOnes = *new std::vector<std::vector<std::string>>{
        {"a", "A"},
        {"s", "S"},
        {"\xc3\xa9", "e\xcc\x81", "E\xcc\x81", "\xc3\x89"},         // with an accent of its own
        {"\xe1\xba\xbf", "e\xcc\x82\xcc\x81", "\xc3\xaa\xcc\x81"},  // with two of them
        {"x\xcc\x81", "X\xcc\x81"},                                 // never one with its accent
        {"\xcf\x83", "\xcf\x82", "\xce\xa3"},                       // a sigma at a word's end
        {" ", "  ", "\xc2\xa0", "\t", " \xe2\x80\x89 "},
        {"*"},
        {"("},
        {")"},
        {"\\"},
        {"#"},
        {"\xf0\x9f\x98\x80"}};
    return theOnes;
}

// A directory's own comparison: case of ASCII letters aside, byte by byte.
bool isLike(std::string_view value, std::string_view pattern) {
    const std::size_t star = pattern.find('*');
    if (star == std::string_view::npos) {
        const auto plain = vorn::unescapeFilterValue(pattern);
        return plain && vorn::equalsIgnoreCase(*plain, value);
    }
    const auto piece = vorn::unescapeFilterValue(pattern.substr(0, star));
    if (!piece || !vorn::startsWithIgnoreCase(value, *piece)) return false;
    const std::string_view rest = pattern.substr(star + 1);
    for (std::size_t at = piece->size(); at <= value.size(); ++at)
        if (isLike(value.substr(at), rest)) return true;
    return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string normal;
    std::string written;
    for (std::size_t i = 0; i + 1 < size && i < 24; i += 2) {
        const auto& forms = characters()[data[i] % characters().size()];
        const bool isBlank = forms.front() == " ";
        if (isBlank && normal.empty()) continue;  // blanks at the ends are the agent's to know
        if (!isBlank || !normal.ends_with(' ')) normal += forms.front();
        written += forms[data[i + 1] % forms.size()];
    }
    if (normal.empty() || normal.ends_with(' ')) return 0;
    standard::TextPattern pattern(standard::TextPattern::Case::Folded);
    pattern.append(normal);
    const std::string text = pattern.of("cn").text();
    if (!isLike(written, std::string_view(text).substr(4, text.size() - 5))) std::abort();
    return 0;
}
