// SPDX-License-Identifier: Apache-2.0
#include "standard/question.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <utility>
#include <vector>

#include "standard/agent_filter.h"
#include "standard/filter_node.h"
#include "standard/guid.h"
#include "vorn/attribute_name.h"
#include "vorn/escape.h"
#include "vorn/numbers.h"
#include "vorn/strings.h"

#include "backend/base/slapd.h"

namespace standard {
namespace {

using Operator = AgentFilter::Operator;

// What the agent takes in one request, with room for the rest of it, and of parts in one filter.
constexpr std::size_t kMostQuestionBytes = std::size_t{1} << 19;
constexpr std::size_t kMostQuestionParts = 4096;

std::string_view viewOf(const berval& text) {
    return text.bv_val == nullptr ? std::string_view() : std::string_view(text.bv_val, text.bv_len);
}

// The name alone is safe to read: slapd fills little else of the description of an
// attribute that its schema does not know.
std::string_view nameIn(const Filter* node) {
    const AttributeDescription* description = assertedIn(node);
    return description == nullptr ? std::string_view() : viewOf(description->ad_cname);
}

std::string_view valueIn(const Filter* node) {
    return choiceOf(node) == LDAP_FILTER_EXT ? viewOf(node->f_mr_value) : viewOf(node->f_av_value);
}

// (Of a piece that is not there slapd sets the text alone.)
std::size_t bytesOfPieces(const Filter* node) {
    std::size_t bytes = viewOf(node->f_sub_initial).size() + viewOf(node->f_sub_final).size();
    for (const berval* piece = node->f_sub_any; piece != nullptr && piece->bv_val != nullptr; ++piece)
        bytes += piece->bv_len + 1;
    return bytes;
}

// The size of a client's filter; goes no deeper than is allowed.
class Measure {
  public:
    std::optional<QuestionRefusal> refusal(const Filter* filter) {
        add(filter, 1);
        if (m_deep) return QuestionRefusal::TooDeep;
        if (m_assertions > kMostAssertions) return QuestionRefusal::TooManyAssertions;
        if (m_bytes > kMostFilterBytes) return QuestionRefusal::TooLong;
        return std::nullopt;
    }

  private:
    void add(const Filter* node, std::size_t level) {
        if (node == nullptr) return;
        if (level > kMostLevels) {
            m_deep = true;
        } else if (isList(node)) {
            for (const Filter* element = node->f_and; element != nullptr; element = element->f_next)
                add(element, level + 1);
        } else {
            ++m_assertions;
            m_bytes += bytesOf(node);
        }
    }

    static std::size_t bytesOf(const Filter* node) {
        const std::size_t name = nameIn(node).size();
        switch (choiceOf(node)) {
            case LDAP_FILTER_SUBSTRINGS:
                return name + bytesOfPieces(node);
            case LDAP_FILTER_PRESENT:
            case SLAPD_FILTER_COMPUTED:
                return name;
            default:
                return assertedIn(node) == nullptr ? 0 : name + valueIn(node).size();
        }
    }

    bool m_deep = false;
    std::size_t m_assertions = 0;
    std::size_t m_bytes = 0;
};

bool is(std::string_view name, std::string_view other) {
    return vorn::equalsIgnoreCase(name, other);
}

// Whether Active Directory compares the attribute with regard to case.
bool countsCase(std::string_view source) {
    static constexpr std::array kNames = {"associatedDomain",     "bootFile",
                                          "bootParameter",        "destinationIndicator",
                                          "displayNamePrintable", "gecos",
                                          "ipHostNumber",         "ipNetmaskNumber",
                                          "ipNetworkNumber",      "loginShell",
                                          "ipServiceProtocol",    "macAddress",
                                          "memberNisNetgroup",    "memberUid",
                                          "msSFU30Aliases",       "msSFU30Name",
                                          "msSFU30NisDomain",     "nisMapEntry",
                                          "nisMapName",           "nisNetgroupTriple",
                                          "serialNumber",         "unixHomeDirectory"};
    return std::any_of(kNames.begin(), kNames.end(), [source](const char* name) { return is(name, source); });
}

// The agent stores only a part of a group's memberUid, and computes the rest.
bool hasSource(const ShownAttribute& attribute) {
    return attribute.form != Form::Computed && !attribute.sources.empty() && !is(attribute.name, "memberUid");
}

// Whether the agent compares by characters, and the client too.
bool isText(const ShownAttribute& attribute) {
    return attribute.form == Form::Same &&
           (attribute.match == Match::Folded || attribute.match == Match::Exact);
}

TextPattern::Case caseOf(const ShownAttribute& attribute) {
    return attribute.match == Match::Folded ? TextPattern::Case::Folded : TextPattern::Case::Kept;
}

TextPattern patternOf(const Filter* substrings, TextPattern::Case inCase) {
    TextPattern pattern(inCase);
    pattern.append(viewOf(substrings->f_sub_initial));
    pattern.appendAnything();
    for (const berval* piece = substrings->f_sub_any; piece != nullptr && piece->bv_val != nullptr; ++piece) {
        pattern.append(viewOf(*piece));
        pattern.appendAnything();
    }
    pattern.append(viewOf(substrings->f_sub_final));
    return pattern;
}

// The number of a rule that compares bits, all of them or any; empty for other rules.
std::string_view bitRule(std::string_view rule) {
    static constexpr std::array<std::array<const char*, 2>, 2> kRules = {
        {{"1.2.840.113556.1.4.803", "integerBitAndMatch"}, {"1.2.840.113556.1.4.804", "integerBitOrMatch"}}};
    for (const auto& [number, name] : kRules)
        if (rule == number || is(rule, name)) return number;
    return "";
}

constexpr std::uint64_t kHighestBit = std::uint64_t{1} << 31;

// Whether names of objects begin with the attribute in Active Directory.
bool namesObjects(std::string_view attribute) {
    static constexpr std::array kNames = {"cn", "ou", "dc", "o", "l", "c"};
    return std::any_of(kNames.begin(), kNames.end(),
                       [attribute](const char* name) { return is(name, attribute); });
}

// One filter for objects of one kind.
class KindQuestion {
  public:
    KindQuestion(const Kind& kind, const Resolver& resolve) : m_kind(kind), m_resolve(resolve) {}

    // At least the objects for whose entries the filter is TRUE, or those for which it is
    // FALSE. What is Undefined is neither.
    AgentFilter where(const Filter* node, bool outcome) const;

  private:
    AgentFilter whereList(const Filter* node, bool outcome) const;
    AgentFilter whereAssertion(const Filter* node, bool outcome) const;
    AgentFilter whereClass(const Filter* node, bool outcome) const;
    AgentFilter whereNamed(std::string_view objectClass, bool outcome) const;
    AgentFilter inClass(const ShownClass& shown) const;
    AgentFilter holds(const ShownAttribute& attribute, const Filter* node) const;
    AgentFilter equals(const ShownAttribute& attribute, std::string_view value) const;
    AgentFilter hasBits(const ShownAttribute& attribute, const Filter* node) const;
    AgentFilter equalsUuid(const ShownAttribute& attribute, std::string_view value) const;
    AgentFilter resolved(const ShownAttribute& attribute, std::string_view value) const;
    AgentFilter like(const ShownAttribute& attribute, const TextPattern& pattern) const;
    AgentFilter isPresent(const ShownAttribute& attribute) const;
    template <class Ask>
    AgentFilter anySource(const ShownAttribute& attribute, const Ask& ask) const;
    std::vector<std::string> sourcesOf(const ShownAttribute& attribute) const;
    const ShownAttribute* attributeOf(std::string_view name) const;

    const Kind& m_kind;
    const Resolver& m_resolve;
};

AgentFilter KindQuestion::where(const Filter* node, bool outcome) const {
    if (node == nullptr) return AgentFilter::all();
    if ((node->f_choice & SLAPD_FILTER_UNDEFINED) != 0) return AgentFilter::nothing();
    switch (choiceOf(node)) {
        case LDAP_FILTER_AND:
        case LDAP_FILTER_OR:
            return whereList(node, outcome);
        case LDAP_FILTER_NOT:
            return where(node->f_not, !outcome);
        case SLAPD_FILTER_COMPUTED:
            return node->f_result == (outcome ? LDAP_COMPARE_TRUE : LDAP_COMPARE_FALSE)
                       ? AgentFilter::all()
                       : AgentFilter::nothing();
        default:
            return whereAssertion(node, outcome);
    }
}

// An AND is FALSE where one of its elements is, an OR where all are.
AgentFilter KindQuestion::whereList(const Filter* node, bool outcome) const {
    std::vector<AgentFilter> parts;
    for (const Filter* element = node->f_and; element != nullptr; element = element->f_next)
        parts.push_back(where(element, outcome));
    return AgentFilter::combine((choiceOf(node) == LDAP_FILTER_AND) == outcome ? Operator::And : Operator::Or,
                                parts);
}

AgentFilter KindQuestion::whereAssertion(const Filter* node, bool outcome) const {
    const std::string_view name = nameIn(node);
    const bool ofDn = choiceOf(node) == LDAP_FILTER_EXT && node->f_mr_dnattrs != 0;
    if (name.empty() || ofDn) return AgentFilter::all();
    if (is(name, "objectClass")) return whereClass(node, outcome);
    const auto* attributes = m_kind.find(name);  // none for a name with options: no entry has any
    if (attributes == nullptr) return outcome ? AgentFilter::nothing() : AgentFilter::all();
    // The agent cannot tell: an object may have values that its entry does not show, and that
    // equal the asserted one by the agent's rule but not by the client's.
    if (!outcome) return AgentFilter::all();
    std::vector<AgentFilter> parts;
    for (const std::size_t at : *attributes) parts.push_back(holds(m_kind.attributes[at], node));
    return AgentFilter::combine(Operator::Or, parts);
}

AgentFilter KindQuestion::whereClass(const Filter* node, bool outcome) const {
    switch (choiceOf(node)) {
        case LDAP_FILTER_PRESENT:
            return outcome ? AgentFilter::all() : AgentFilter::nothing();
        case LDAP_FILTER_EQUALITY:
        case LDAP_FILTER_APPROX:
            return whereNamed(valueIn(node), outcome);
        case LDAP_FILTER_EXT:
            return AgentFilter::all();
        default:
            return AgentFilter::nothing();  // classes have no order and no substrings: Undefined
    }
}

AgentFilter KindQuestion::whereNamed(std::string_view objectClass, bool outcome) const {
    if (!outcome || vorn::isNumericName(objectClass)) return AgentFilter::all();
    std::vector<AgentFilter> parts;
    for (const auto* classes : {&m_kind.classes, &m_kind.fallback}) {
        for (const ShownClass& shown : *classes)
            if (is(shown.name, objectClass)) parts.push_back(inClass(shown));
    }
    return AgentFilter::combine(Operator::Or, parts);
}

AgentFilter KindQuestion::inClass(const ShownClass& shown) const {
    std::vector<AgentFilter> parts;
    for (const std::string& need : shown.needs) {
        if (const ShownAttribute* attribute = attributeOf(need)) parts.push_back(isPresent(*attribute));
    }
    return AgentFilter::combine(Operator::And, parts);
}

AgentFilter KindQuestion::holds(const ShownAttribute& attribute, const Filter* node) const {
    if (choiceOf(node) == LDAP_FILTER_EQUALITY) return equals(attribute, valueIn(node));
    if (choiceOf(node) == LDAP_FILTER_EXT) return hasBits(attribute, node);
    if (choiceOf(node) == LDAP_FILTER_SUBSTRINGS && isText(attribute))
        return like(attribute, patternOf(node, caseOf(attribute)));
    return isPresent(attribute);
}

AgentFilter KindQuestion::equals(const ShownAttribute& attribute, std::string_view value) const {
    if (!hasSource(attribute) || attribute.match == Match::Dn) return resolved(attribute, value);
    if (attribute.form == Form::Uuid) return equalsUuid(attribute, value);
    if (isText(attribute)) {
        TextPattern pattern(caseOf(attribute));
        pattern.append(value);
        return like(attribute, pattern);
    }
    const bool isNumber = attribute.form == Form::Same && attribute.match == Match::Number;
    if (!isNumber || value.empty()) return isPresent(attribute);
    return anySource(attribute,
                     [value](const std::string& source) { return AgentFilter::equality(source, value); });
}

// Of the rules that are named, the agent has the two about bits.
AgentFilter KindQuestion::hasBits(const ShownAttribute& attribute, const Filter* node) const {
    const std::string_view rule = bitRule(viewOf(node->f_mr_rule_text));
    const bool isNumber = attribute.form == Form::Same && attribute.match == Match::Number;
    // Of other numbers the directories do not all think alike.
    const auto bits = vorn::parseNumber<std::uint64_t>(valueIn(node)).value_or(0);
    if (rule.empty() || !isNumber || attribute.operational || bits == 0 || bits > kHighestBit)
        return isPresent(attribute);
    return anySource(attribute, [&](const std::string& source) {
        return AgentFilter::byRule(source, rule, std::to_string(bits));
    });
}

AgentFilter KindQuestion::equalsUuid(const ShownAttribute& attribute, std::string_view value) const {
    const std::optional<std::string> guid = guidOfUuid(value);
    if (!guid) return AgentFilter::nothing();
    return anySource(attribute,
                     [&guid](const std::string& source) { return AgentFilter::ofBytes(source, *guid); });
}

AgentFilter KindQuestion::resolved(const ShownAttribute& attribute, std::string_view value) const {
    std::optional<std::string> filter = m_resolve(m_kind, attribute, value);
    if (!filter) return isPresent(attribute);
    return filter->empty() ? AgentFilter::nothing() : AgentFilter::of(std::move(*filter));
}

// Where the agent minds the case of letters and the client does not, it would find too little.
AgentFilter KindQuestion::like(const ShownAttribute& attribute, const TextPattern& pattern) const {
    return anySource(attribute, [&pattern](const std::string& source) {
        const bool stricter = pattern.hasFoldedLetters() && countsCase(source);
        return stricter ? AgentFilter::presence(source) : pattern.of(source);
    });
}

AgentFilter KindQuestion::isPresent(const ShownAttribute& attribute) const {
    if (attribute.operational) return AgentFilter::all();
    return anySource(attribute, [](const std::string& source) { return AgentFilter::presence(source); });
}

template <class Ask>
AgentFilter KindQuestion::anySource(const ShownAttribute& attribute, const Ask& ask) const {
    if (!hasSource(attribute)) return AgentFilter::all();
    std::vector<AgentFilter> parts;
    for (const std::string& source : sourcesOf(attribute)) parts.push_back(ask(source));
    return AgentFilter::combine(Operator::Or, parts);
}

// The object's attributes that values of the entry's can come from: besides those of the map
// what its DN begins with, and a person's cn, which stands in for a missing sn.
std::vector<std::string> KindQuestion::sourcesOf(const ShownAttribute& attribute) const {
    std::vector<std::string> sources = attribute.sources;
    if (m_kind.naming.empty() && namesObjects(attribute.name)) sources.push_back(attribute.name);
    const ShownAttribute* cn = attributeOf("cn");
    if (m_kind.sort == Sort::Person && is(attribute.name, "sn") && cn != nullptr) {
        const std::vector<std::string> more = sourcesOf(*cn);
        sources.insert(sources.end(), more.begin(), more.end());
    }
    return sources;
}

// Of a type and its subtypes, the type itself.
const ShownAttribute* KindQuestion::attributeOf(std::string_view name) const {
    const auto found = std::find_if(m_kind.attributes.begin(), m_kind.attributes.end(),
                                    [name](const ShownAttribute& one) { return is(one.name, name); });
    return found == m_kind.attributes.end() ? nullptr : &*found;
}

std::string anyOf(const std::vector<std::string>& filters) {
    if (filters.size() == 1) return filters.front();
    std::string text;
    for (const std::string& filter : filters) text += filter;
    return text.empty() ? text : "(|" + text + ')';
}

// No parenthesis and no asterisk stands unescaped in a value.
bool isTooMuch(const std::string& text) {
    const auto parts = std::count_if(text.begin(), text.end(), [](char c) { return c == '(' || c == '*'; });
    return text.size() > kMostQuestionBytes || static_cast<std::size_t>(parts) > kMostQuestionParts;
}

}  // namespace

vorn::Expected<std::string, QuestionRefusal> questionOf(const Filter* filter, const Kinds& kinds,
                                                        const Resolver& resolve) {
    if (const auto refusal = Measure().refusal(filter)) return vorn::unexpected(*refusal);
    std::vector<std::string> whole;
    std::vector<std::string> conditions;
    for (const Kind& kind : kinds) {
        const AgentFilter wanted = KindQuestion(kind, resolve).where(filter, true);
        if (wanted.isNothing()) continue;
        whole.push_back(wanted.textWith(kind.condition));
        conditions.push_back(kind.condition);
    }
    std::string text = anyOf(whole);
    return isTooMuch(text) ? anyOf(conditions) : text;
}

}  // namespace standard
