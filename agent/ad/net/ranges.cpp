// SPDX-License-Identifier: Apache-2.0
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

LinkFailure oddPart(const std::string& text) {
    return {LDAP_OTHER, text, false, text};
}

// One part more: its values, and where the one after it begins.
struct Part {
    bool found = false;
    std::size_t next = 0;
    std::vector<std::string> values;
};

Linked<Part> readPart(LinkReader& reader, const std::string& dn, const RangedName& ranged) {
    const std::string wanted = ranged.name + ";range=" + std::to_string(ranged.next) + "-*";
    Part part;
    const auto read = reader.search({dn, LDAP_SCOPE_BASE, "(objectClass=*)", {wanted}}, [&](Entry&& entry) {
        for (Attribute& piece : entry.attributes) {
            const auto name = parseRange(piece.name);
            if (!name || !vorn::equalsIgnoreCase(name->name, ranged.name)) continue;
            part.found = true;
            part.next = name->next;
            std::move(piece.values.begin(), piece.values.end(), std::back_inserter(part.values));
        }
    });
    if (!read) return vorn::unexpected(read.error());
    return part;
}

// Adds the parts after the first; each must lead further.
Linked<Done> readRest(LinkReader& reader, const std::string& dn, RangedName ranged, Attribute& attribute) {
    while (ranged.next != 0) {
        auto part = readPart(reader, dn, ranged);
        if (!part) return vorn::unexpected(part.error());
        // No such part: the value before was the last one, at the very end of its part.
        if (!part->found) return Done();
        std::move(part->values.begin(), part->values.end(), std::back_inserter(attribute.values));
        if (part->next != 0 && part->next <= ranged.next)
            return vorn::unexpected(
                oddPart("the controller sends the parts of " + ranged.name + " without end"));
        ranged.next = part->next;
    }
    return Done();
}

}  // namespace

std::optional<RangedName> parseRange(const std::string& text) {
    const std::string folded = vorn::lower(text);
    const std::size_t at = folded.find(kRange);
    if (at == std::string::npos) return std::nullopt;
    std::string_view range = std::string_view(folded).substr(at + kRange.size());
    const std::size_t dash = range.find('-');
    if (dash == std::string_view::npos) return std::nullopt;
    const std::string_view last = range.substr(dash + 1);
    if (last == "*") return RangedName{text.substr(0, at), 0};
    const auto end = vorn::parseNumber<std::size_t>(last);
    if (!end || *end > kMostValues) return std::nullopt;
    return RangedName{text.substr(0, at), *end + 1};
}

bool hasRanges(const Entry& entry) {
    return std::any_of(entry.attributes.begin(), entry.attributes.end(),
                       [](const Attribute& attribute) { return isPart(attribute.name); });
}

Linked<Done> completeRanges(LinkReader& reader, Entry& entry) {
    if (!hasRanges(entry)) return Done();
    for (Attribute& attribute : entry.attributes) {
        if (!isPart(attribute.name)) continue;
        const auto ranged = parseRange(attribute.name);
        if (!ranged)
            return vorn::unexpected(oddPart("the controller sends a part that leads nowhere: " +
                                            vorn::printable(attribute.name)));
        attribute.name = ranged->name;
        if (auto rest = readRest(reader, entry.dn, *ranged, attribute); !rest) return rest;
    }
    // Beside the part there may be the attribute itself, without values.
    std::erase_if(entry.attributes, [](const Attribute& attribute) { return attribute.values.empty(); });
    return Done();
}

}  // namespace vexagent
