#include "agent/ad/net/ranges.h"

#include <algorithm>
#include <iterator>

#include "vorn/numbers.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

constexpr std::string_view kRange = ";range=";
constexpr std::size_t kMostValues = 5'000'000;  // of one attribute

// Whether an attribute's values come in parts.
bool isPart(const std::string& name) {
    return vorn::lower(name).find(kRange) != std::string::npos;
}

}  // namespace

bool parseRange(const std::string& text, RangedName& ranged) {
    const std::string folded = vorn::lower(text);
    const std::size_t at = folded.find(kRange);
    if (at == std::string::npos) return false;
    std::string_view range = std::string_view(folded).substr(at + kRange.size());
    const std::size_t dash = range.find('-');
    if (dash == std::string_view::npos) return false;
    ranged.name = text.substr(0, at);
    ranged.next = 0;
    const std::string_view last = range.substr(dash + 1);
    if (last == "*") return true;
    const auto end = vorn::parseNumber<std::size_t>(last);
    if (!end || *end > kMostValues) return false;
    ranged.next = *end + 1;
    return true;
}

bool hasRanges(const Entry& entry) {
    return std::any_of(entry.attributes.begin(), entry.attributes.end(),
                       [](const Attribute& attribute) { return isPart(attribute.name); });
}

namespace {

LdapStatus oddPart(const std::string& text) {
    return {LDAP_OTHER, text, false, false, text};
}

// Adds the parts after the first; each must lead further.
LdapStatus readRest(Link& link, const std::string& dn, RangedName ranged, Attribute& attribute,
                    const Deadline& deadline) {
    while (ranged.next != 0) {
        const std::string wanted = ranged.name + ";range=" + std::to_string(ranged.next) + "-*";
        std::size_t next = 0;
        bool more = false;
        LdapStatus status =
            link.search({dn, LDAP_SCOPE_BASE, "(objectClass=*)", {wanted}}, deadline, [&](Entry&& part) {
                for (Attribute& piece : part.attributes) {
                    RangedName name;
                    if (!parseRange(piece.name, name) || !vorn::equalsIgnoreCase(name.name, ranged.name))
                        continue;
                    more = true;
                    next = name.next;
                    std::move(piece.values.begin(), piece.values.end(), std::back_inserter(attribute.values));
                }
            });
        if (!status.ok()) return status;
        // No such part: the value before was the last one, at the very end of its part.
        if (!more) return {};
        if (next != 0 && next <= ranged.next)
            return oddPart("the controller sends the parts of " + ranged.name + " without end");
        ranged.next = next;
    }
    return {};
}

}  // namespace

LdapStatus readRanges(Link& link, Entry& entry, const Deadline& deadline) {
    for (Attribute& attribute : entry.attributes) {
        if (!isPart(attribute.name)) continue;
        RangedName ranged;
        if (!parseRange(attribute.name, ranged))
            return oddPart("the controller sends a part that leads nowhere: " +
                           vorn::printable(attribute.name));
        attribute.name = ranged.name;
        if (LdapStatus status = readRest(link, entry.dn, ranged, attribute, deadline); !status.ok())
            return status;
    }
    // Beside the part there may be the attribute itself, without values.
    std::erase_if(entry.attributes, [](const Attribute& attribute) { return attribute.values.empty(); });
    return {};
}

}  // namespace vexagent
