// SPDX-License-Identifier: Apache-2.0
#include "standard/filter_key.h"

#include <set>
#include <string_view>
#include <vector>

#include "vorn/escape.h"

#include "backend/base/slapd.h"

namespace standard {
namespace {

constexpr char kTrue[] = "(?=true)";
constexpr char kFalse[] = "(?=false)";
constexpr char kUndefined[] = "(?=undefined)";

// Writes one filter. Every part ends itself, and what could end one is escaped in values: no
// two filters have one text by chance.
class KeyWriter {
  public:
    KeyWriter(std::size_t most, std::string* key) : m_most(most), m_key(key) {}

    void write(const Filter* node);

  private:
    using Starts = std::vector<std::size_t>;

    bool isFull() const { return m_key->size() > m_most; }
    void writeComputed(ber_int_t result);
    void writeNegation(const Filter* node);
    void writeList(const Filter* node);
    void writeElements(const Filter* list, ber_tag_t choice, Starts* starts);
    std::string_view part(const Starts& starts, std::size_t at) const;
    void arrange(Starts* starts);
    void writeItem(const AttributeDescription* description, const char* sign, const berval& value);
    void writeSubstrings(const Filter* node);
    void writeExtensible(const Filter* node);

    void add(std::string_view text) { m_key->append(text); }
    void addText(const berval& text) { m_key->append(text.bv_val, text.bv_len); }
    void addName(const AttributeDescription* description) {
        if (description != nullptr) addText(description->ad_cname);
    }
    void addValue(const berval& value) {
        if (value.bv_val != nullptr) vorn::appendFilterValue(m_key, {value.bv_val, value.bv_len});
    }

    const std::size_t m_most;
    std::string* const m_key;
};

void KeyWriter::write(const Filter* node) {
    if (isFull()) return;
    // Of an attribute that the schema does not know nothing is TRUE, nor FALSE.
    if ((node->f_choice & SLAPD_FILTER_UNDEFINED) != 0) return add(kUndefined);
    switch (node->f_choice) {
        case SLAPD_FILTER_COMPUTED:
            return writeComputed(node->f_result);
        case LDAP_FILTER_AND:
        case LDAP_FILTER_OR:
            return writeList(node);
        case LDAP_FILTER_NOT:
            return writeNegation(node);
        case LDAP_FILTER_PRESENT:
            add("(");
            addName(node->f_desc);
            return add("=*)");
        case LDAP_FILTER_SUBSTRINGS:
            return writeSubstrings(node);
        case LDAP_FILTER_EXT:
            return writeExtensible(node);
        case LDAP_FILTER_EQUALITY:
            return writeItem(node->f_av_desc, "=", node->f_av_value);
        case LDAP_FILTER_GE:
            return writeItem(node->f_av_desc, ">=", node->f_av_value);
        case LDAP_FILTER_LE:
            return writeItem(node->f_av_desc, "<=", node->f_av_value);
        case LDAP_FILTER_APPROX:
            return writeItem(node->f_av_desc, "~=", node->f_av_value);
        default:
            return add(kUndefined);
    }
}

void KeyWriter::writeComputed(ber_int_t result) {
    add(result == LDAP_COMPARE_TRUE ? kTrue : result == LDAP_COMPARE_FALSE ? kFalse : kUndefined);
}

void KeyWriter::writeNegation(const Filter* node) {
    add("(!");
    write(node->f_not);
    add(")");
}

// The elements are written where they belong, and put in order there: a text is only moved
// where its client had another order.
void KeyWriter::writeList(const Filter* node) {
    const bool isAnd = node->f_choice == LDAP_FILTER_AND;
    const std::size_t begin = m_key->size();
    add(isAnd ? "(&" : "(|");
    Starts starts;
    writeElements(node->f_list, node->f_choice, &starts);
    if (isFull()) return;
    arrange(&starts);
    if (starts.size() > 1) return add(")");
    m_key->erase(begin, 2);
    if (starts.empty()) add(isAnd ? kTrue : kFalse);
}

// Those of a list within the list of its sort are the list's own.
void KeyWriter::writeElements(const Filter* list, ber_tag_t choice, Starts* starts) {
    for (const Filter* one = list; one != nullptr && !isFull(); one = one->f_next) {
        if (one->f_choice == choice) {
            writeElements(one->f_list, choice, starts);
        } else {
            starts->push_back(m_key->size());
            write(one);
        }
    }
}

std::string_view KeyWriter::part(const Starts& starts, std::size_t at) const {
    const std::size_t end = at + 1 < starts.size() ? starts[at + 1] : m_key->size();
    return std::string_view(*m_key).substr(starts[at], end - starts[at]);
}

// Puts the elements that start there, the last ones of the key, in order, each once.
void KeyWriter::arrange(Starts* starts) {
    bool inOrder = true;
    for (std::size_t at = 1; at < starts->size() && inOrder; ++at)
        inOrder = part(*starts, at - 1) < part(*starts, at);
    if (inOrder) return;
    std::set<std::string_view> parts;
    for (std::size_t at = 0; at < starts->size(); ++at) parts.insert(part(*starts, at));
    std::string text;
    for (const std::string_view one : parts) text += one;
    m_key->replace(starts->front(), std::string::npos, text);
    starts->resize(parts.size());
}

void KeyWriter::writeItem(const AttributeDescription* description, const char* sign, const berval& value) {
    add("(");
    addName(description);
    add(sign);
    addValue(value);
    add(")");
}

void KeyWriter::writeSubstrings(const Filter* node) {
    add("(");
    addName(node->f_sub_desc);
    add(":*=");
    addValue(node->f_sub_initial);
    add("*");
    for (const berval* piece = node->f_sub_any; piece != nullptr && piece->bv_val != nullptr; ++piece) {
        addValue(*piece);
        add("*");
    }
    addValue(node->f_sub_final);
    add(")");
}

void KeyWriter::writeExtensible(const Filter* node) {
    add("(");
    addName(node->f_mr_desc);
    add(node->f_mr_dnattrs != 0 ? ":dn:" : ":");
    if (node->f_mr_rule != nullptr) add(node->f_mr_rule->smr_oid);
    add(":=");
    addValue(node->f_mr_value);
    add(")");
}

}  // namespace

void appendFilterKey(const Filter* filter, std::size_t most, std::string* key) {
    KeyWriter(most, key).write(filter);
}

}  // namespace standard
