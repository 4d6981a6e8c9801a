// SPDX-License-Identifier: Apache-2.0
#include "translate/filter_builder_testing.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "vorn/escape.h"

#include "backend/base/slapd.h"

namespace {

class Reader {
  public:
    Reader(FilterBuilder* builder, std::string_view text) : m_builder(builder), m_text(text) {}

    Filter* filter() {
        expect('(');
        Filter* result = content();
        expect(')');
        return result;
    }
    void end() const {
        if (!m_text.empty()) throw std::invalid_argument("text behind the filter");
    }

  private:
    Filter* content() {
        if (take('&')) return m_builder->list(LDAP_FILTER_AND, elements());
        if (take('|')) return m_builder->list(LDAP_FILTER_OR, elements());
        if (take('!')) return m_builder->list(LDAP_FILTER_NOT, elements());
        if (take('#')) return m_builder->computed(std::stoi(until(")")));
        if (take('@')) return m_builder->node(std::stoul(until(")"), nullptr, 0));
        return item();
    }

    std::vector<Filter*> elements() {
        std::vector<Filter*> result;
        while (!m_text.starts_with(')')) result.push_back(filter());
        return result;
    }

    Filter* item() {
        const bool undefined = take('?');
        const std::string name = until("=<>~:");
        const std::string sign = until("=") + "=";
        expect('=');
        Filter* result = itemOf(name, sign, until(")"));
        if (undefined) result->f_choice |= SLAPD_FILTER_UNDEFINED;
        return result;
    }

    Filter* itemOf(const std::string& name, const std::string& sign, const std::string& value) {
        if (sign == ">=") return m_builder->assertion(LDAP_FILTER_GE, name, unescape(value));
        if (sign == "<=") return m_builder->assertion(LDAP_FILTER_LE, name, unescape(value));
        if (sign == "~=") return m_builder->assertion(LDAP_FILTER_APPROX, name, unescape(value));
        if (sign == ":=") return m_builder->extensible(name, unescape(value));
        if (sign != "=") throw std::invalid_argument("unknown sign " + sign);
        if (value == "*") return m_builder->present(name);
        if (value.find('*') != std::string::npos) return pieces(name, value);
        return m_builder->assertion(LDAP_FILTER_EQUALITY, name, unescape(value));
    }

    Filter* pieces(const std::string& name, const std::string& value) {
        const std::size_t first = value.find('*');
        const std::size_t last = value.rfind('*');
        std::vector<std::string> any;
        for (std::size_t at = first; at != last;) {
            const std::size_t next = value.find('*', at + 1);
            any.push_back(unescape(value.substr(at + 1, next - at - 1)));
            at = next;
        }
        const auto piece = [](const std::string& text) {
            return text.empty() ? FilterBuilder::Text() : FilterBuilder::Text(unescape(text));
        };
        return m_builder->substrings(name, piece(value.substr(0, first)), any, piece(value.substr(last + 1)));
    }

    static std::string unescape(std::string_view text) { return vorn::unescapeFilterValue(text).value(); }

    bool take(char c) {
        if (!m_text.starts_with(c)) return false;
        m_text.remove_prefix(1);
        return true;
    }
    void expect(char c) {
        if (!take(c)) throw std::invalid_argument(std::string("expected ") + c);
    }
    std::string until(const char* ends) {
        const std::size_t length = std::min(m_text.find_first_of(ends), m_text.size());
        std::string result(m_text.substr(0, length));
        m_text.remove_prefix(length);
        return result;
    }

    FilterBuilder* m_builder;
    std::string_view m_text;
};

// Reads decisions and texts from bytes; zeros when they are used up.
class Source {
  public:
    Source(FilterBuilder* builder, std::span<const std::uint8_t> bytes)
        : m_builder(builder), m_bytes(bytes) {}

    Filter* filter(int depth) {
        const unsigned decision = next();
        Filter* result = choose(depth > 8 ? decision % 8 + 3 : decision % 16, depth);
        if (decision & 0x80) result->f_choice |= SLAPD_FILTER_UNDEFINED;
        return result;
    }

  private:
    Filter* choose(unsigned what, int depth) {
        switch (what) {
            case 0:
                return m_builder->list(LDAP_FILTER_AND, elements(depth));
            case 1:
                return m_builder->list(LDAP_FILTER_OR, elements(depth));
            case 2:
                return m_builder->list(LDAP_FILTER_NOT, {filter(depth + 1)});
            case 3:
                return m_builder->assertion(LDAP_FILTER_GE, name(), text());
            case 4:
                return m_builder->assertion(LDAP_FILTER_LE, name(), text());
            case 5:
                return m_builder->present(name());
            case 6:
            case 7:
                return substrings();
            case 8:
                return m_builder->computed(next() % 8 == 0 ? -1 : LDAP_COMPARE_TRUE);
            case 9:
                return rare();
            default:
                return m_builder->assertion(LDAP_FILTER_EQUALITY, name(), text());
        }
    }

    Filter* rare() {
        switch (next() % 4) {
            case 0:
                return m_builder->assertion(LDAP_FILTER_APPROX, name(), text());
            case 1:
                return m_builder->extensible(name(), text());
            case 2:
                return m_builder->assertion(LDAP_FILTER_EQUALITY, {}, text());
            default:
                return m_builder->assertion(LDAP_FILTER_EQUALITY, name(), {});
        }
    }

    Filter* substrings() {
        const unsigned which = next();
        std::vector<std::string> any;
        for (unsigned i = 0; i < which % 4; ++i) any.push_back(text());
        const FilterBuilder::Text initial = which & 4 ? FilterBuilder::Text(text()) : std::nullopt;
        const FilterBuilder::Text final = which & 8 ? FilterBuilder::Text(text()) : std::nullopt;
        return m_builder->substrings(name(), initial, any, final);
    }

    std::vector<Filter*> elements(int depth) {
        std::vector<Filter*> result;
        for (unsigned count = next() % 5; count > 0; --count) result.push_back(filter(depth + 1));
        return result;
    }

    std::string name() {
        static constexpr const char* kNames[] = {"uid",    "cn",      "objectClass",
                                                 "member", "dropped", "x-y;lang-de"};
        return kNames[next() % std::size(kNames)];
    }

    // Never empty: slapd refuses substrings with an empty piece.
    std::string text() {
        const std::size_t wanted = next() % 24 + 1;
        const std::size_t length = std::min(wanted, m_bytes.size());
        std::string result(m_bytes.begin(), m_bytes.begin() + static_cast<std::ptrdiff_t>(length));
        m_bytes = m_bytes.subspan(length);
        return result.empty() ? "x" : result;
    }

    unsigned next() {
        if (m_bytes.empty()) return 0x0A;
        const unsigned result = m_bytes.front();
        m_bytes = m_bytes.subspan(1);
        return result;
    }

    FilterBuilder* m_builder;
    std::span<const std::uint8_t> m_bytes;
};

}  // namespace

Filter* FilterBuilder::parse(std::string_view text) {
    Reader reader(this, text);
    Filter* result = reader.filter();
    reader.end();
    return result;
}

Filter* FilterBuilder::fromBytes(std::span<const std::uint8_t> bytes) {
    return Source(this, bytes).filter(0);
}

Filter* FilterBuilder::node(ber_tag_t choice) {
    Filter& result = m_nodes.emplace_back();
    result = Filter{};
    result.f_choice = choice;
    return &result;
}

// Exactly the text's bytes and a NUL, in memory of their own: a read beyond them
// shows in a sanitizer.
berval FilterBuilder::keep(const Text& text) {
    if (!text) return {0, nullptr};
    // Never grown: it would get room to spare.
    std::vector<char>& bytes = m_texts.emplace_back(text->size() + 1);
    std::copy(text->begin(), text->end(), bytes.begin());
    return {text->size(), bytes.data()};
}

berval FilterBuilder::keepValue(const Text& text) {
    if (text) m_values.push_back(*text);
    return keep(text);
}

// With the name alone: all else of a description is not for reading.
AttributeDescription* FilterBuilder::describe(const Text& name) {
    AttributeDescription& description = m_descriptions.emplace_back();
    std::memset(static_cast<void*>(&description), 0xA5, sizeof description);
    description.ad_cname = keep(name);
    return &description;
}

Filter* FilterBuilder::present(const Text& name) {
    Filter* result = node(LDAP_FILTER_PRESENT);
    result->f_desc = describe(name);
    return result;
}

Filter* FilterBuilder::assertion(ber_tag_t choice, const Text& name, const Text& value) {
    AttributeAssertion& content = m_assertions.emplace_back();
    content = AttributeAssertion{};
    content.aa_desc = name ? describe(name) : nullptr;
    content.aa_value = keepValue(value);
    Filter* result = node(choice);
    result->f_ava = &content;
    return result;
}

Filter* FilterBuilder::extensible(const Text& name, const std::string& value) {
    MatchingRuleAssertion& content = m_extensibles.emplace_back();
    content = MatchingRuleAssertion{};
    content.ma_desc = name && !name->empty() ? describe(name) : nullptr;
    content.ma_value = keepValue(value);
    Filter* result = node(LDAP_FILTER_EXT);
    result->f_mra = &content;
    return result;
}

Filter* FilterBuilder::substrings(const Text& name, const Text& initial, const std::vector<std::string>& any,
                                  const Text& final) {
    SubstringsAssertion& content = m_substrings.emplace_back();
    content = SubstringsAssertion{};
    content.sa_desc = describe(name);
    content.sa_initial = keepValue(initial);
    content.sa_final = keepValue(final);
    if (!any.empty()) {
        std::vector<berval>& pieces = m_pieces.emplace_back();
        for (const std::string& piece : any) pieces.push_back(keepValue(piece));
        pieces.push_back({0, nullptr});
        content.sa_any = pieces.data();
    }
    Filter* result = node(LDAP_FILTER_SUBSTRINGS);
    result->f_sub = &content;
    return result;
}

Filter* FilterBuilder::list(ber_tag_t choice, const std::vector<Filter*>& elements) {
    Filter* result = node(choice);
    Filter** place = &result->f_and;
    for (Filter* element : elements) {
        *place = element;
        place = &element->f_next;
    }
    return result;
}

Filter* FilterBuilder::computed(int result) {
    Filter* filter = node(SLAPD_FILTER_COMPUTED);
    filter->f_result = result;
    return filter;
}
