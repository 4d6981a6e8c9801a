// SPDX-License-Identifier: Apache-2.0
// slapd's filter trees for tests, made by hand.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "backend/base/slapd.h"

// Owns the nodes that it makes, until its end.
class FilterBuilder {
  public:
    using Text = std::optional<std::string>;

    // RFC 4515 text as a tree, and besides: an attribute with "?" before its name
    // is one that slapd's schema does not know, "(#N)" a filter computed to N, and
    // "(@N)" a node of choice N. Throws std::invalid_argument for malformed text.
    Filter* parse(std::string_view text);

    // A tree out of any bytes: names are valid, values are anything.
    Filter* fromBytes(std::span<const std::uint8_t> bytes);

    Filter* present(const Text& name);
    Filter* assertion(ber_tag_t choice, const Text& name, const Text& value);
    Filter* substrings(const Text& name, const Text& initial, const std::vector<std::string>& any,
                       const Text& final);
    Filter* extensible(const Text& name, const std::string& value);
    Filter* list(ber_tag_t choice, const std::vector<Filter*>& elements);
    Filter* computed(int result);
    Filter* node(ber_tag_t choice);

    // Every value and piece of a value so far.
    const std::vector<std::string>& values() const { return m_values; }

  private:
    AttributeDescription* describe(const Text& name);
    berval keep(const Text& text);
    berval keepValue(const Text& text);

    std::deque<std::vector<char>> m_texts;
    std::deque<AttributeDescription> m_descriptions;
    std::deque<AttributeAssertion> m_assertions;
    std::deque<MatchingRuleAssertion> m_extensibles;
    std::deque<SubstringsAssertion> m_substrings;
    std::deque<std::vector<berval>> m_pieces;
    std::deque<Filter> m_nodes;
    std::vector<std::string> m_values;
};
