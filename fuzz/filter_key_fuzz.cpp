// SPDX-License-Identifier: Apache-2.0
// Filters of one normal form are the same for every entry; and a filter keeps its form when
// its elements stand in another order, twice, or in a list of their own.
#include "standard/filter_key.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>
#include <vector>

#include "translate/filter_builder_testing.h"

#include "tests/standin/slapd_standin.h"

namespace {

constexpr std::size_t kMost = 4096;

void must(bool holds) {
    if (!holds) std::abort();
}

std::string keyOf(const Filter* filter) {
    std::string key;
    standard::appendFilterKey(filter, kMost, &key);
    return key;
}

bool isList(const Filter* node) {
    return node->f_choice == LDAP_FILTER_AND || node->f_choice == LDAP_FILTER_OR;
}

// The same filter, written in another way.
Filter* varied(FilterBuilder* builder, Filter* node) {
    Filter* copy = builder->node(node->f_choice);
    copy->f_un = node->f_un;
    if (node->f_choice == LDAP_FILTER_NOT) copy->f_not = varied(builder, node->f_not);
    if (!isList(node)) return copy;
    std::vector<Filter*> elements;
    for (Filter* one = node->f_list; one != nullptr; one = one->f_next)
        elements.push_back(varied(builder, one));
    std::reverse(elements.begin(), elements.end());
    if (node->f_list != nullptr) elements.push_back(varied(builder, node->f_list));
    return builder->list(node->f_choice, {builder->list(node->f_choice, elements)});
}

// Entries with the filter's own values, so that some of it is true.
std::vector<Entry*> entriesOf(const std::vector<std::string>& values) {
    std::vector<Entry*> entries;
    for (std::size_t i = 0; i < 4; ++i) {
        Entry* entry = entry_alloc();
        for (std::size_t at = i; at < values.size(); at += 2) {
            static constexpr const char* kNames[] = {"uid", "cn", "objectClass", "member"};
            AttributeDescription* description = nullptr;
            const char* reason = nullptr;
            slap_str2ad(kNames[(at + i) % 4], &description, &reason);
            berval value[] = {{values[at].size(), const_cast<char*>(values[at].data())}, {0, nullptr}};
            if (value[0].bv_val != nullptr) attr_merge(entry, description, value, nullptr);
        }
        entries.push_back(entry);
    }
    return entries;
}

void mustBeAlike(const Filter* one, const Filter* other, const std::vector<Entry*>& entries) {
    for (Entry* entry : entries) must(standin::evaluate(entry, one) == standin::evaluate(entry, other));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool known = [] {
        for (const char* name : {"uid", "cn", "objectClass", "member"}) standin::knowAttribute(name);
        return true;
    }();
    must(known);
    FilterBuilder builder;
    Filter* filter = builder.fromBytes(std::span(data, size));
    Filter* other = builder.fromBytes(std::span(data, size).subspan(size / 2));
    Filter* variant = varied(&builder, filter);
    const std::vector<Entry*> entries = entriesOf(builder.values());
    const std::string key = keyOf(filter);
    must(key.size() <= kMost || key.size() < kMost + 2 * size + 100);
    mustBeAlike(filter, variant, entries);
    const std::string variantKey = keyOf(variant);
    must(key == variantKey || std::max(key.size(), variantKey.size()) > kMost);
    if (key == keyOf(other) && key.size() <= kMost) mustBeAlike(filter, other, entries);
    for (Entry* entry : entries) entry_free(entry);
    return 0;
}
