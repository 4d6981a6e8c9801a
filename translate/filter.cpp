// SPDX-License-Identifier: Apache-2.0
#include "translate/filter.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <utility>

#include "backend/base/log.h"
#include "translate/map.h"
#include "vex/vex.h"
#include "vorn/attribute_name.h"
#include "vorn/escape.h"
#include "vorn/exception.h"
#include "vorn/strings.h"

#include "backend/base/slapd.h"

namespace {

// slapd sets a further bit in a node when its schema does not know the attribute.
ber_tag_t choiceOf(const Filter* node) {
    return node->f_choice & SLAPD_FILTER_MASK;
}

// A text of slapd up to its first NUL byte; null without one.
std::optional<std::string_view> textOf(const berval& text) {
    if (text.bv_val == nullptr) return std::nullopt;
    return std::string_view(text.bv_val, strnlen(text.bv_val, text.bv_len));
}

// The name alone is safe to read: slapd fills little else of the description of
// an attribute that its schema does not know.
std::optional<std::string_view> nameOf(const AttributeDescription* description) {
    if (description == nullptr || description->ad_cname.bv_val == nullptr) return std::nullopt;
    return std::string_view(description->ad_cname.bv_val, description->ad_cname.bv_len);
}

bool isDomainComponent(std::string_view text, std::size_t at) {
    if (!vorn::startsWithIgnoreCase(text.substr(at), "DC")) return false;
    const std::size_t sign = text.find_first_not_of(" \t", at + 2);
    return sign != std::string_view::npos && text[sign] == '=';
}

bool isDistinguishedName(std::string_view text) {
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (vorn::lower(text[at]) == 'd' && isDomainComponent(text, at)) return true;
    }
    return false;
}

void appendEscaped(std::string* out, std::string_view text) {
    if (!vorn::needsFilterEscape(text) || isDistinguishedName(text))
        out->append(text);
    else
        vorn::appendFilterValue(out, text);
}

bool hasUpperCase(std::string_view text) {
    return std::any_of(text.begin(), text.end(), [](char c) { return c >= 'A' && c <= 'Z'; });
}

// Names of classes mean the same in any case, and slapd leaves them as they were sent.
bool namesClasses(std::string_view attribute) {
    return vorn::equalsIgnoreCase(attribute, AD_OBJECT_CLASS) ||
           vorn::equalsIgnoreCase(attribute, AD_OBJECT_CATEGORY);
}

// One translation: writes a tree into one text, from left to right.
class Writer {
  public:
    Writer(std::string_view objectType, const vorn::Properties* map) : m_objectType(objectType), m_map(map) {
        m_out.reserve(127);  // few filters have to move to grow
    }

    void write(const Filter* node);
    int writeElements(const Filter* node);
    std::string take() { return std::move(m_out); }
    bool caseCounts() const { return m_caseCounts; }

  private:
    void writeBoolean(const Filter* node, char sign, int fewest);
    void writePresent(const Filter* node);
    void writeAssertion(const Filter* node);
    void writeSubstrings(const Filter* node);
    bool openItem(std::optional<std::string_view> name);
    void writePiece(std::string_view attribute, const berval& piece);
    void noteCase(std::string_view attribute, std::string_view value);
    [[noreturn]] static void refuse(const Filter* node);
    [[noreturn]] static void refuseName();

    const std::string_view m_objectType;
    const vorn::Properties* const m_map;
    std::string m_out;
    bool m_caseCounts = false;
};

// slapd's form of an AND or OR that has no elements left.
bool isComputed(const Filter* node) {
    return choiceOf(node) == SLAPD_FILTER_COMPUTED &&
           (node->f_result == LDAP_COMPARE_TRUE || node->f_result == LDAP_COMPARE_FALSE);
}

void Writer::write(const Filter* node) {
    if (node == nullptr || isComputed(node)) return;
    switch (choiceOf(node)) {
        case LDAP_FILTER_PRESENT:
            return writePresent(node);
        case LDAP_FILTER_AND:
            return writeBoolean(node, '&', 2);
        case LDAP_FILTER_OR:
            return writeBoolean(node, '|', 2);
        case LDAP_FILTER_NOT:
            return writeBoolean(node, '!', 1);
        case LDAP_FILTER_EQUALITY:
        case LDAP_FILTER_GE:
        case LDAP_FILTER_LE:
            return writeAssertion(node);
        case LDAP_FILTER_SUBSTRINGS:
            return writeSubstrings(node);
        default:
            refuse(node);
    }
}

// With fewer elements than the operator needs there is nothing to combine: the
// elements stand alone.
void Writer::writeBoolean(const Filter* node, char sign, int fewest) {
    const std::size_t start = m_out.size();
    m_out += {'(', sign};
    if (writeElements(node) < fewest) {
        m_out.erase(start, 2);
    } else {
        m_out += ')';
    }
}

// The operators keep their elements in the same place.
int Writer::writeElements(const Filter* node) {
    if (isComputed(node)) return 0;
    int count = 0;
    for (const Filter* element = node->f_and; element != nullptr; element = element->f_next) {
        const std::size_t before = m_out.size();
        write(element);
        if (m_out.size() > before) ++count;
    }
    return count;
}

// "(NAME=", unless the item is dropped: it has no name, or its name translates to
// nothing.
bool Writer::openItem(std::optional<std::string_view> name) {
    if (!name || name->empty()) return false;
    if (!vorn::isAttributeDescription(*name)) refuseName();
    const std::size_t start = m_out.size();
    m_out += '(';
    if (m_map == nullptr) {
        m_out.append(*name);
    } else {
        m_out.append(translate_name(m_map, translation_key(m_objectType, *name), *name));
    }
    if (m_out.size() == start + 1) {
        m_out.erase(start);
        return false;
    }
    m_out += '=';
    return true;
}

void Writer::writePresent(const Filter* node) {
    if (openItem(nameOf(node->f_desc))) m_out.append("*)");
}

void Writer::writeAssertion(const Filter* node) {
    if (node->f_ava == nullptr) return;
    const std::optional<std::string_view> value = textOf(node->f_av_value);
    const std::optional<std::string_view> name = nameOf(node->f_av_desc);
    if (!value || !openItem(name)) return;
    const std::size_t start = m_out.size();
    appendEscaped(&m_out, *value);
    // The key in the map is the value as the filter has it. What the map gives is
    // filter text already.
    const auto mapped = m_map == nullptr ? std::nullopt : m_map->find(std::string_view(m_out).substr(start));
    if (mapped) m_out.replace(start, std::string::npos, *mapped);
    noteCase(*name, mapped ? *mapped : *value);
    m_out += ')';
}

// slapd makes a value lower-case when case does not count for its attribute. It leaves the
// value as it was when it does not know the attribute.
void Writer::noteCase(std::string_view attribute, std::string_view value) {
    if (!m_caseCounts) m_caseCounts = hasUpperCase(value) && !namesClasses(attribute);
}

void Writer::writePiece(std::string_view attribute, const berval& piece) {
    const auto text = textOf(piece);
    if (!text) return;
    appendEscaped(&m_out, *text);
    noteCase(attribute, *text);
}

void Writer::writeSubstrings(const Filter* node) {
    const SubstringsAssertion* pieces = node->f_sub;
    if (pieces == nullptr) return;
    const std::optional<std::string_view> name = nameOf(pieces->sa_desc);
    if (!openItem(name)) return;
    writePiece(*name, pieces->sa_initial);
    m_out += '*';
    for (const berval* any = pieces->sa_any; any != nullptr && any->bv_val != nullptr; ++any) {
        writePiece(*name, *any);
        m_out += '*';
    }
    writePiece(*name, pieces->sa_final);
    m_out += ')';
}

// The name is not written to the log: a client can send anything as a name.
void Writer::refuseName() {
    JError("Invalid attribute name in filter");
    throw vorn::VORNException("", 0);
}

void Writer::refuse(const Filter* node) {
    JError("Unknown choice in filter: %d", static_cast<int>(choiceOf(node)));
    throw vorn::VORNException("", 0);
}

// What a node with one value asserts. Of the union's members only the one that
// the choice names exists.
struct Assertion {
    const AttributeDescription* description;
    const berval* value;
};

std::optional<Assertion> assertionOf(const Filter* node) {
    switch (choiceOf(node)) {
        case LDAP_FILTER_EQUALITY:
        case LDAP_FILTER_GE:
        case LDAP_FILTER_LE:
        case LDAP_FILTER_APPROX:
            if (node->f_ava == nullptr) return std::nullopt;
            return Assertion{node->f_av_desc, &node->f_av_value};
        case LDAP_FILTER_EXT:
            if (node->f_mra == nullptr) return std::nullopt;
            return Assertion{node->f_mr_desc, &node->f_mr_value};
        default:
            return std::nullopt;
    }
}

bool readObjectType(const Filter* node, std::string* attrName, std::string* value) {
    const std::optional<Assertion> assertion = assertionOf(node);
    if (!assertion) return false;
    const auto name = nameOf(assertion->description);
    const auto text = textOf(*assertion->value);
    if (!name || !text) return false;
    if (!namesClasses(*name)) return false;
    attrName->assign(*name);
    value->assign(*text);
    return true;
}

bool hasElements(const Filter* node) {
    const ber_tag_t choice = choiceOf(node);
    return choice == LDAP_FILTER_AND || choice == LDAP_FILTER_OR || choice == LDAP_FILTER_NOT;
}

}  // namespace

TranslatedFilter translate_filter(std::string_view objectType, const Filter* filter,
                                  const vorn::Properties* map) {
    Writer writer(objectType, map);
    writer.write(filter);
    const bool caseCounts = writer.caseCounts();
    return {writer.take(), caseCounts};
}

std::string filter_as_string(std::string_view objectType, const Filter* filter, const vorn::Properties* map) {
    return translate_filter(objectType, filter, map).text;
}

std::string filter_list_as_string(std::string_view objectType, const Filter* node,
                                  const vorn::Properties* map, int* count) {
    Writer writer(objectType, map);
    *count = writer.writeElements(node);
    return writer.take();
}

std::string escape_filter_value(std::string_view text) {
    std::string escaped;
    escaped.reserve(text.size());
    appendEscaped(&escaped, text);
    return escaped;
}

bool find_object_type(const Filter* filter, std::string* attrName, std::string* value) {
    if (filter == nullptr) return false;
    if (!hasElements(filter)) return readObjectType(filter, attrName, value);
    for (const Filter* element = filter->f_and; element != nullptr; element = element->f_next) {
        if (find_object_type(element, attrName, value)) return true;
    }
    return false;
}
