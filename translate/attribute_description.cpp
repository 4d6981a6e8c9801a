#include "translate/attribute_description.h"

#include <algorithm>
#include <cstddef>

namespace {

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

bool isLetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool isKeyText(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(),
                                        [](char c) { return isLetter(c) || isDigit(c) || c == '-'; });
}

bool isNumber(std::string_view text) {
    const bool isPlain = text.size() == 1 || (!text.empty() && text[0] != '0');
    return isPlain && std::all_of(text.begin(), text.end(), isDigit);
}

// What stands before the first separator; text becomes what stands behind it, and
// *more tells whether there was one.
std::string_view cut(std::string_view* text, char separator, bool* more) {
    const std::size_t at = text->find(separator);
    *more = at != std::string_view::npos;
    const std::string_view head = text->substr(0, at);
    text->remove_prefix(*more ? at + 1 : text->size());
    return head;
}

// Of two numbers at least.
bool isNumericOid(std::string_view text) {
    if (text.find('.') == std::string_view::npos) return false;
    for (bool more = true; more;) {
        if (!isNumber(cut(&text, '.', &more))) return false;
    }
    return true;
}

bool isOid(std::string_view text) {
    if (text.empty()) return false;
    return isLetter(text[0]) ? isKeyText(text) : isNumericOid(text);
}

}  // namespace

bool isAttributeDescription(std::string_view text) {
    bool more = false;
    if (!isOid(cut(&text, ';', &more))) return false;
    while (more) {
        if (!isKeyText(cut(&text, ';', &more))) return false;
    }
    return true;
}
