// SPDX-License-Identifier: Apache-2.0
// Any filter tree makes a question or is refused. A question is one whole filter, of no more
// than the agent takes, and the same the second time; and no value of the tree can write a
// filter of its own.
#include "standard/question.h"

#include <algorithm>
#include <cstdlib>
#include <span>
#include <stdexcept>

#include "standard/kinds_testing.h"
#include "translate/filter_builder_testing.h"

#include "backend/base/slapd.h"

namespace {

// The kinds' own names and the names that FilterBuilder draws: "member", "dropped" and
// "x-y;lang-de" among them.
const standard::Kinds& kinds() {
    static const standard::Kinds& theOne = *new standard::Kinds(standard::peopleAndGroups());
    return theOne;
}

std::optional<std::string> resolve(const standard::Kind&, const standard::ShownAttribute&,
                                   std::string_view value) {
    if (value.size() % 3 == 0) return std::nullopt;
    return value.size() % 3 == 1 ? "" : "(resolved=1)";
}

bool isKnown(const std::string& name) {
    static const std::vector<std::string> known = {"cn",          "displayName", "gidNumber",
                                                   "objectClass", "resolved",    "sAMAccountName",
                                                   "sn",          "uidNumber",   "unixHomeDirectory"};
    return std::find(known.begin(), known.end(), name) != known.end();
}

void check(const Filter* node) {
    const bool isList = node->f_choice == LDAP_FILTER_AND || node->f_choice == LDAP_FILTER_OR;
    if (isList) {
        for (const Filter* element = node->f_and; element != nullptr; element = element->f_next)
            check(element);
        return;
    }
    const auto* description = node->f_choice == LDAP_FILTER_PRESENT      ? node->f_desc
                              : node->f_choice == LDAP_FILTER_SUBSTRINGS ? node->f_sub_desc
                                                                         : node->f_av_desc;
    if (node->f_choice == LDAP_FILTER_NOT ||
        !isKnown(std::string(description->ad_cname.bv_val, description->ad_cname.bv_len)))
        std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FilterBuilder builder;
    const Filter* filter = builder.fromBytes(std::span(data, size));
    const auto question = standard::questionOf(filter, kinds(), resolve);
    if (!question) return 0;
    if (standard::questionOf(filter, kinds(), resolve).value() != *question) std::abort();
    if (question->size() > std::size_t{1} << 19) std::abort();
    if (!std::all_of(question->begin(), question->end(), [](char c) { return c >= ' ' && c < 0x7F; }))
        std::abort();
    if (!question->empty()) check(builder.parse(*question));
    return 0;
}
