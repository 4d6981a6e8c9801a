// SPDX-License-Identifier: Apache-2.0
// No entry that a filter is TRUE for is missed: random filters, random objects, and two
// evaluators that know nothing of the question's making. One says what the client means by
// the filter, with LDAP's rules of comparison. The other says what the agent finds by the
// question, with stricter ones.
#include <gmock/gmock.h>
#include <ldap.h>

#include <algorithm>
#include <map>
#include <random>

#include "standard/kinds_testing.h"
#include "standard/question.h"
#include "translate/filter_builder_testing.h"
#include "vorn/escape.h"

#include "tests/standin/slapd_standin.h"

namespace standard {
namespace {

using Random = std::mt19937;
using Record = std::map<std::string, std::vector<std::string>, vorn::StringCaseLessThan>;

std::size_t below(Random& random, std::size_t bound) {
    return random() % bound;
}

const std::string& oneOf(Random& random, const std::vector<std::string>& choices) {
    return choices[below(random, choices.size())];
}

std::string textOf(const berval& value) {
    return value.bv_val == nullptr ? "" : std::string(value.bv_val, value.bv_len);
}

// ---- texts, as LDAP compares them

void replaceAll(std::string* text, std::string_view from, std::string_view to) {
    for (std::size_t at = 0; (at = text->find(from, at)) != std::string::npos; at += to.size())
        text->replace(at, from.size(), to);
}

// Blanks as one; the decomposed letter composed, the wide one narrow.
std::string prepared(std::string text, Match match) {
    replaceAll(&text, "e\xCC\x88", "\xC3\xAB");
    replaceAll(&text, "  ", " ");
    return match == Match::Folded ? vorn::lower(text) : text;
}

std::string trimmed(std::string text) {
    while (text.starts_with(' ')) text.erase(0, 1);
    while (text.ends_with(' ')) text.pop_back();
    return text;
}

std::string normal(const std::string& text, Match match) {
    return match == Match::Folded || match == Match::Exact ? trimmed(prepared(text, match)) : text;
}

// Where case does not count, the value is in lower case already.
bool hasPieces(std::string_view value, const Filter* node, bool folds = false) {
    const auto piece = [folds](const berval& one) { return folds ? vorn::lower(textOf(one)) : textOf(one); };
    const std::string initial = piece(node->f_sub_initial);
    if (!value.starts_with(initial)) return false;
    value.remove_prefix(initial.size());
    for (const berval* any = node->f_sub_any; any != nullptr && any->bv_val != nullptr; ++any) {
        const std::size_t at = value.find(piece(*any));
        if (at == std::string_view::npos) return false;
        value.remove_prefix(at + any->bv_len);
    }
    return value.ends_with(piece(node->f_sub_final));
}

// ---- objects, and the entries that are made of them

struct Object {
    const Kind* kind;
    Record agent;
    Record entry;  // by the names of the kind's attributes
};

// Some values are not shown: the entry lacks the class that would allow them.
Record entryOf(const Kind& kind, const Record& agent, Random& random) {
    Record entry;
    for (const ShownAttribute& one : kind.attributes) {
        for (const std::string& source : one.sources) {
            const auto found = agent.find(source);
            if (found == agent.end() || below(random, 8) == 0) continue;
            entry[one.name].insert(entry[one.name].end(), found->second.begin(), found->second.end());
        }
        if (one.form == Form::Computed && below(random, 2) == 0) entry[one.name] = {"cn=ann"};
    }
    if (kind.naming.empty()) entry["cn"].push_back(agent.at("cn").front());
    if (kind.sort == Sort::Person && entry["sn"].empty()) entry["sn"] = {entry["cn"].front()};
    std::erase_if(entry, [](const auto& attribute) { return attribute.second.empty(); });
    for (const auto* classes : {&kind.classes, &kind.fallback}) {
        for (const ShownClass& one : *classes) {
            const bool fits = std::all_of(one.needs.begin(), one.needs.end(),
                                          [&](const std::string& need) { return entry.contains(need); });
            if (fits && below(random, 8) != 0) entry["objectClass"].push_back(one.name);
        }
    }
    return entry;
}

const std::vector<std::string>& texts() {
    static const std::vector<std::string> all = {
        "ann", "Ann",  "ANN LEE", "ann  lee", "Zo\xC3\xAB",   "Zoe\xCC\x88", "a*b",
        "(x)", "a\\b", "5",       "57",       "cn=ann,dc=x)", " lee ",       "z\xC3\xAB z\xC3\xAB"};
    return all;
}

Object makeObject(const Kind& kind, Random& random) {
    Record agent = {{"cn", {oneOf(random, texts())}}, {"objectGUID", {"0123456789abcdef"}}};
    for (const ShownAttribute& one : kind.attributes) {
        for (const std::string& source : one.sources) {
            if (agent.contains(source)) continue;
            for (std::size_t count = below(random, 3); count > 0; --count)
                agent[source].push_back(one.match == Match::Number ? std::to_string(below(random, 9))
                                                                   : oneOf(random, texts()));
        }
    }
    std::erase_if(agent, [](const auto& attribute) { return attribute.second.empty(); });
    agent["objectClass"] = {kind.objectClass};
    Record entry = entryOf(kind, agent, random);
    return {&kind, std::move(agent), std::move(entry)};
}

// ---- what the client means

enum class Truth { False, Undefined, True };  // an AND is the least of its elements, an OR the greatest

class Meaning {
  public:
    explicit Meaning(const Object& object) : m_object(object) {}

    Truth of(const Filter* node) const {
        if ((node->f_choice & SLAPD_FILTER_UNDEFINED) != 0) return Truth::Undefined;
        switch (node->f_choice) {
            case LDAP_FILTER_AND:
                return list(node, Truth::True, [](Truth a, Truth b) { return std::min(a, b); });
            case LDAP_FILTER_OR:
                return list(node, Truth::False, [](Truth a, Truth b) { return std::max(a, b); });
            case LDAP_FILTER_NOT:
                return static_cast<Truth>(2 - static_cast<int>(of(node->f_not)));
            case SLAPD_FILTER_COMPUTED:
                return node->f_result == LDAP_COMPARE_TRUE    ? Truth::True
                       : node->f_result == LDAP_COMPARE_FALSE ? Truth::False
                                                              : Truth::Undefined;
            default:
                return assertion(node);
        }
    }

  private:
    template <class Choose>
    Truth list(const Filter* node, Truth result, const Choose& choose) const {
        for (const Filter* element = node->f_and; element != nullptr; element = element->f_next)
            result = choose(result, of(element));
        return result;
    }

    Truth assertion(const Filter* node) const {
        const bool present = node->f_choice == LDAP_FILTER_PRESENT;
        const AttributeDescription* description = present ? node->f_desc
                                                  : node->f_choice == LDAP_FILTER_SUBSTRINGS
                                                      ? node->f_sub_desc
                                                      : node->f_av_desc;
        const std::string name = textOf(description->ad_cname);
        if (vorn::equalsIgnoreCase(name, "objectClass")) return holds("objectClass", Match::Folded, node);
        const auto* attributes = m_object.kind->find(name);
        if (attributes == nullptr) return Truth::False;
        Truth result = Truth::False;
        for (const std::size_t at : *attributes) {
            const ShownAttribute& one = m_object.kind->attributes[at];
            result = std::max(result, holds(one.name, one.match, node));
        }
        return result;
    }

    Truth holds(const std::string& name, Match match, const Filter* node) const {
        const auto found = m_object.entry.find(name);
        if (found == m_object.entry.end()) return Truth::False;
        const auto& values = found->second;
        return std::any_of(values.begin(), values.end(),
                           [&](const std::string& value) { return fits(normal(value, match), node); })
                   ? Truth::True
                   : Truth::False;
    }

    static bool fits(const std::string& value, const Filter* node) {
        switch (node->f_choice) {
            case LDAP_FILTER_PRESENT:
                return true;
            case LDAP_FILTER_SUBSTRINGS:
                return hasPieces(value, node);
            case LDAP_FILTER_GE:
                return value >= textOf(node->f_av_value);
            case LDAP_FILTER_LE:
                return value <= textOf(node->f_av_value);
            default:
                return value == textOf(node->f_av_value);
        }
    }

    const Object& m_object;
};

// ---- what the agent finds

// Blanks inside and bytes outside ASCII are as they are stored, and in gecos the case is, too.
bool finds(const Filter* node, const Record& object) {
    const auto found = [&](const Filter* element) { return finds(element, object); };
    std::vector<const Filter*> elements;
    if (node->f_choice == LDAP_FILTER_AND || node->f_choice == LDAP_FILTER_OR) {
        for (const Filter* one = node->f_and; one != nullptr; one = one->f_next) elements.push_back(one);
        return node->f_choice == LDAP_FILTER_AND ? std::all_of(elements.begin(), elements.end(), found)
                                                 : std::any_of(elements.begin(), elements.end(), found);
    }
    const bool present = node->f_choice == LDAP_FILTER_PRESENT;
    const bool pieces = node->f_choice == LDAP_FILTER_SUBSTRINGS;
    const auto* description = present ? node->f_desc : pieces ? node->f_sub_desc : node->f_av_desc;
    const std::string name = textOf(description->ad_cname);
    const auto values = object.find(name);
    if (values == object.end()) return false;
    if (present) return true;
    const bool folds = !vorn::equalsIgnoreCase(name, "gecos");
    return std::any_of(values->second.begin(), values->second.end(), [&](const std::string& stored) {
        const std::string value = trimmed(stored);
        if (pieces) return hasPieces(folds ? vorn::lower(value) : value, node, folds);
        const std::string asserted = textOf(node->f_av_value);
        return folds ? vorn::equalsIgnoreCase(value, asserted) : value == asserted;
    });
}

// ---- random filters, with values as slapd prepares them

class Drawing {
  public:
    Drawing(const Kinds& kinds, Random& random, FilterBuilder* builder)
        : m_kinds(kinds), m_random(random), m_builder(builder) {}

    Filter* filter(int depth) {
        const std::size_t choice = below(m_random, depth > 3 ? 5 : 10);
        if (choice >= 8) return m_builder->list(LDAP_FILTER_AND, elements(depth));
        if (choice >= 6) return m_builder->list(LDAP_FILTER_OR, elements(depth));
        if (choice == 5) return m_builder->list(LDAP_FILTER_NOT, {filter(depth + 1)});
        Filter* result = leaf();
        if (below(m_random, 16) == 0) result->f_choice |= SLAPD_FILTER_UNDEFINED;
        return result;
    }

  private:
    std::vector<Filter*> elements(int depth) {
        std::vector<Filter*> result;
        for (std::size_t count = below(m_random, 4); count > 0; --count) result.push_back(filter(depth + 1));
        return result;
    }

    Filter* leaf() {
        static const std::vector<std::string> names = {
            "uid",       "cn",     "sn",      "name",      "uidNumber",   "homeDirectory",   "gecos",
            "mobile",    "member", "mail",    "memberUid", "objectClass", "telephoneNumber", "manager",
            "gidNumber", "cn;x-a", "memberOf"};
        static const std::vector<std::string> classes = {"posixAccount", "posixGroup",     "person",
                                                         "top",          "groupOfMembers", "device"};
        if (below(m_random, 20) == 0)
            return m_builder->computed(static_cast<int>(below(m_random, 3)) * 6 - 6);
        const std::string& name = oneOf(m_random, names);
        if (name == "objectClass")
            return m_builder->assertion(LDAP_FILTER_EQUALITY, name, vorn::lower(oneOf(m_random, classes)));
        const Match match = matchOf(name);
        const std::string text = match == Match::Number ? std::to_string(below(m_random, 9))
                                                        : normal(oneOf(m_random, texts()), match);
        return ofSort(name, match, text);
    }

    Filter* ofSort(const std::string& name, Match match, const std::string& text) {
        switch (below(m_random, 10)) {
            case 0:
                return m_builder->present(name);
            case 1:
                return m_builder->assertion(LDAP_FILTER_GE, name, text);
            case 2:
                return m_builder->assertion(LDAP_FILTER_LE, name, text);
            case 3:
                return m_builder->assertion(LDAP_FILTER_APPROX, name, text);
            case 4:
            case 5:
                return pieces(name, prepared(oneOf(m_random, texts()), match));
            default:
                return m_builder->assertion(LDAP_FILTER_EQUALITY, name, text);
        }
    }

    // Cut between characters.
    Filter* pieces(const std::string& name, const std::string& text) {
        std::size_t cut = 1 + below(m_random, text.size());
        while (cut < text.size() && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) ++cut;
        const FilterBuilder::Text first = text.substr(0, cut);
        const std::string rest = text.substr(cut);
        const std::vector<std::string> middle =
            rest.empty() ? std::vector<std::string>() : std::vector<std::string>{rest};
        if (below(m_random, 3) == 0) return m_builder->substrings(name, {}, {*first}, {});
        if (below(m_random, 2) == 0 || rest.empty()) return m_builder->substrings(name, first, middle, {});
        return m_builder->substrings(name, first, {}, rest);
    }

    Match matchOf(const std::string& name) const {
        for (const Kind& kind : m_kinds) {
            const auto* found = kind.find(name);
            if (found != nullptr) return kind.attributes[found->front()].match;
        }
        return Match::Folded;
    }

    const Kinds& m_kinds;
    Random& m_random;
    FilterBuilder* m_builder;
};

std::optional<std::string> resolveDn(const Kind&, const ShownAttribute& attribute, std::string_view value) {
    if (attribute.name != "manager") return std::nullopt;
    std::string text = "(manager=";
    vorn::appendFilterValue(&text, value);
    return text += ')';
}

class TheMeaningOfAQuestion : public testing::Test {
  protected:
    std::string questionFor(const Filter* filter) { return questionOf(filter, m_kinds, resolveDn).value(); }

    const Kinds m_kinds = peopleAndGroups();
    Random m_random{20260711};
};

TEST_F(TheMeaningOfAQuestion, HoldsEveryEntryThatTheFilterIsTrueFor) {
    constexpr int kFilters = 4000;
    std::vector<Object> objects;
    for (int i = 0; i < 24; ++i) objects.push_back(makeObject(m_kinds[below(m_random, 2)], m_random));
    int wanted = 0;
    int spared = 0;
    for (int i = 0; i < kFilters; ++i) {
        FilterBuilder builder;
        const Filter* filter = Drawing(m_kinds, m_random, &builder).filter(0);
        const std::string question = questionFor(filter);
        const Filter* asked = question.empty() ? builder.computed(0) : builder.parse(question);
        for (const Object& object : objects) {
            const bool isTrue = Meaning(object).of(filter) == Truth::True;
            const bool isFound = !question.empty() && finds(asked, object.agent);
            ASSERT_TRUE(isFound || !isTrue) << "filter " << i << ": " << question;
            wanted += isTrue;
            spared += !isFound;
        }
    }
    // Neither is the filter never true nor is everything asked for.
    EXPECT_GT(wanted, kFilters);
    EXPECT_GT(spared, kFilters);
}

// The same filter in other words: elements in another order, repeated, in lists of their
// own, and twice negated.
class Rewording {
  public:
    Rewording(Random& random, FilterBuilder* builder) : m_random(random), m_builder(builder) {}

    Filter* of(const Filter* node) {
        Filter* result = sameWords(node);
        switch (below(m_random, 6)) {
            case 0:
                return m_builder->list(LDAP_FILTER_NOT, {m_builder->list(LDAP_FILTER_NOT, {result})});
            case 1:
                return m_builder->list(LDAP_FILTER_AND, {result});
            case 2:
                return m_builder->list(LDAP_FILTER_OR, {result, sameWords(node)});
            default:
                return result;
        }
    }

  private:
    Filter* sameWords(const Filter* node) {
        if (node->f_choice == LDAP_FILTER_NOT) return m_builder->list(LDAP_FILTER_NOT, {of(node->f_not)});
        if (node->f_choice == LDAP_FILTER_AND || node->f_choice == LDAP_FILTER_OR) return list(node);
        Filter* copy = m_builder->node(node->f_choice);
        *copy = *node;
        copy->f_next = nullptr;
        return copy;
    }

    Filter* list(const Filter* node) {
        std::vector<Filter*> elements;
        for (const Filter* one = node->f_and; one != nullptr; one = one->f_next) elements.push_back(of(one));
        std::shuffle(elements.begin(), elements.end(), m_random);
        const std::size_t cut = below(m_random, elements.size() + 1);
        const auto middle = elements.begin() + static_cast<std::ptrdiff_t>(cut);
        Filter* first = m_builder->list(node->f_choice, {elements.begin(), middle});
        return m_builder->list(node->f_choice, [&] {
            std::vector<Filter*> all = {first};
            all.insert(all.end(), middle, elements.end());
            return all;
        }());
    }

    Random& m_random;
    FilterBuilder* m_builder;
};

TEST_F(TheMeaningOfAQuestion, IsInItsTextWhateverWordsTheFilterHas) {
    for (int i = 0; i < 2000; ++i) {
        FilterBuilder builder;
        const Filter* filter = Drawing(m_kinds, m_random, &builder).filter(0);
        ASSERT_EQ(questionFor(filter), questionFor(Rewording(m_random, &builder).of(filter))) << i;
    }
}

}  // namespace
}  // namespace standard
