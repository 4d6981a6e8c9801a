// SPDX-License-Identifier: Apache-2.0
#include "agent/directory/filter.h"

#include <ldap.h>

#include <algorithm>
#include <optional>

#include "agent/directory/attributes.h"
#include "agent/directory/categories.h"
#include "agent/directory/identifiers.h"
#include "vorn/attribute_name.h"
#include "vorn/numbers.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

bool is(std::string_view name, std::string_view other) {
    return vorn::equalsIgnoreCase(name, other);
}

const char* newText(void* pool, const std::string& text) {
    const char* copy = talloc_strdup(pool, text.c_str());
    if (copy == nullptr) throw std::bad_alloc();
    return copy;
}

// One rewriting of one filter.
class Rewriting {
  public:
    Rewriting(void* pool, const FilterContext& context) : m_pool(pool), m_context(context) {}

    Selection rewrite(ParseTree*& tree) {
        return simplify(tree, false, [this](ParseTree*& assertion, bool negated) {
            return rewriteAssertion(assertion, negated);
        });
    }

  private:
    Selection rewriteAssertion(ParseTree*& tree, bool negated) {
        // Undefined: counts as true below a NOT, so that the NOT is false.
        if (!isDefined(tree)) return negated ? Selection::All : Selection::Nothing;
        const char* name = assertedAttribute(tree);
        if (m_context.first) {
            const std::optional<Selection> decided = m_context.first(m_pool, tree);
            if (decided) return *decided;
        }
        if (m_context.groupsOf && is(name, "memberUid")) return rewriteMemberUid(tree);
        if (tree->operation == LDB_OP_EQUALITY) return rewriteEquality(tree);
        if (tree->operation == LDB_OP_GREATER || tree->operation == LDB_OP_LESS) return rewriteOrdering(tree);
        return Selection::Some;
    }

    // Gives an attribute that is called by its number its name first.
    bool isDefined(ParseTree* tree) {
        static const Schema kNone;
        const Schema& schema = m_context.schema != nullptr ? *m_context.schema : kNone;
        const char* asked = assertedAttribute(tree);
        const std::optional<std::string> name = asked == nullptr ? std::nullopt : schema.nameOf(asked);
        if (!name || schema.isSecret(*name)) return false;
        if (*name != asked) renameAsserted(tree, newText(m_pool, *name));
        return true;
    }

    Selection rewriteEquality(ParseTree* tree) {
        const std::string_view name = tree->u.equality.attr;
        const std::string_view value = bytesOf(tree->u.equality.value);
        if (isIntegerAttribute(name)) return rewriteNumber(tree->u.equality.value);
        if (is(name, "objectGUID")) return rewriteGuid(tree, value);
        if (is(name, "objectSid") && vorn::startsWithIgnoreCase(value, "S-1-")) {
            const auto bytes = sidBytes(value);
            if (!bytes) return Selection::Nothing;
            tree->u.equality.value = newValue(m_pool, *bytes);
        }
        if (is(name, "objectCategory") && value.find('=') == std::string_view::npos)
            tree->u.equality.value = newValue(m_pool, categoryDn(categoryOfClass(value), m_context.rootDn));
        if (is(name, "distinguishedName") || is(name, "dn") || is(name, "member")) return rewriteDn(tree);
        return Selection::Some;
    }

    Selection rewriteGuid(ParseTree* tree, std::string_view value) {
        if (value.size() == kGuidBytes) return Selection::Some;
        const auto bytes = guidBytes(value);
        if (!bytes) return Selection::Nothing;
        tree->u.equality.value = newValue(m_pool, *bytes);
        return Selection::Some;
    }

    // DNs are stored in LDB's own spelling, so one with other spacing finds them.
    Selection rewriteDn(ParseTree* tree) {
        const std::string text(bytesOf(tree->u.equality.value));
        ldb_dn* dn = ldb_dn_new(m_pool, m_context.ldb, text.c_str());
        if (dn == nullptr || !ldb_dn_validate(dn) || ldb_dn_is_null(dn) || ldb_dn_is_special(dn))
            return Selection::Nothing;
        tree->u.equality.value = newValue(m_pool, spelledDn(dn));
        return Selection::Some;
    }

    Selection rewriteOrdering(ParseTree* tree) {
        if (!isIntegerAttribute(tree->u.comparison.attr)) return Selection::Some;
        return rewriteNumber(tree->u.comparison.value);
    }

    // In plain decimal: LDB would take a leading zero for octal.
    Selection rewriteNumber(ldb_val& value) {
        const auto number = vorn::parseNumber<long long>(bytesOf(value));
        if (!number) return Selection::Nothing;
        value = newValue(m_pool, std::to_string(*number));
        return Selection::Some;
    }

    // A group shows the memberUid that it holds itself and those of its members.
    // Presence asks for either; the other matches see only what is stored.
    Selection rewriteMemberUid(ParseTree*& tree) {
        if (tree->operation == LDB_OP_PRESENT)
            tree = newList(m_pool, LDB_OP_OR, {tree, newPresence(m_pool, "member")});
        if (tree->operation != LDB_OP_EQUALITY) return Selection::Some;
        std::vector<ParseTree*> any = {tree};
        for (const std::string& group : m_context.groupsOf(bytesOf(tree->u.equality.value)))
            any.push_back(newEquality(m_pool, "objectGUID", group));
        tree = newList(m_pool, LDB_OP_OR, any);
        return Selection::Some;
    }

    void* const m_pool;
    const FilterContext& m_context;
};

// LDB takes no attribute name that begins with "_", so the agent's own names are
// replaced in the text; "(" stands unescaped only where an assertion begins. A
// name that the filter cannot ask for becomes one that nothing has.
std::string withoutOwnNames(const std::string& text) {
    static constexpr std::pair<std::string_view, std::string_view> kNames[] = {
        {"_GUID", "objectGUID"}, {"_dn", "distinguishedName"}, {"_objectCategory", "objectCategory"}};
    std::string result;
    result.reserve(text.size());
    for (std::size_t at = 0; at < text.size();) {
        const bool begins = text[at] == '_' && (at == 0 || text[at - 1] == '(');
        if (!begins) {
            result.push_back(text[at++]);
            continue;
        }
        const std::size_t end = std::min(text.find_first_of("=~<>:()", at), text.size());
        const std::string_view name = std::string_view(text).substr(at, end - at);
        const auto* known = std::find_if(std::begin(kNames), std::end(kNames),
                                         [name](const auto& pair) { return is(pair.first, name); });
        result +=
            known != std::end(kNames) ? std::string(known->second) : "own-" + std::string(name.substr(1));
        at = end;
    }
    return result;
}

// Whether all assertions are on attributes that can be written so.
bool namesAttributes(const ParseTree* tree) {
    const auto& list = tree->u.list;
    switch (tree->operation) {
        case LDB_OP_AND:
        case LDB_OP_OR:
            return std::all_of(list.elements, list.elements + list.num_elements, namesAttributes);
        case LDB_OP_NOT:
            return namesAttributes(tree->u.isnot.child);
        case LDB_OP_EXTENDED:
            if (const char* rule = tree->u.extended.rule_id; rule != nullptr && !vorn::isAttributeName(rule))
                return false;
            [[fallthrough]];
        default:
            const char* name = assertedAttribute(tree);
            return name == nullptr || vorn::isAttributeName(name);
    }
}

Result badFilter() {
    return Result::ldap(VEX_BAD_FILTER, LDAP_FILTER_ERROR, "bad search filter");
}

}  // namespace

Result parseFilter(void* pool, const std::string& text, ParseTree*& tree) {
    tree = nullptr;
    if (text.empty()) return {};
    // A NUL would end the text early for LDB.
    if (text.find('\0') != std::string::npos) return badFilter();
    const FilterShape shape = shapeOf(text);
    if (shape.size > kMostAssertions)
        return Result::ldap(VEX_REFUSED, LDAP_ADMINLIMIT_EXCEEDED, "the search filter has too many parts");
    if (shape.whole) tree = ldb_parse_tree(pool, withoutOwnNames(text).c_str());
    return tree != nullptr && namesAttributes(tree) ? Result() : badFilter();
}

Selection rewriteAssertions(void* pool, ParseTree*& tree, const FilterContext& context) {
    if (tree == nullptr) return Selection::All;
    return Rewriting(pool, context).rewrite(tree);
}

void sortAnds(ParseTree* tree, int (*cost)(const ParseTree*)) {
    if (tree->operation == LDB_OP_NOT) return sortAnds(tree->u.isnot.child, cost);
    if (tree->operation != LDB_OP_AND && tree->operation != LDB_OP_OR) return;
    auto& list = tree->u.list;
    for (unsigned i = 0; i < list.num_elements; ++i) sortAnds(list.elements[i], cost);
    if (tree->operation == LDB_OP_AND)
        std::stable_sort(list.elements, list.elements + list.num_elements,
                         [cost](const ParseTree* a, const ParseTree* b) { return cost(a) < cost(b); });
}

ParseTree* newNode(void* pool, ldb_parse_op operation) {
    auto* node = talloc_zero(pool, ParseTree);
    if (node == nullptr) throw std::bad_alloc();
    node->operation = operation;
    return node;
}

ParseTree* newList(void* pool, ldb_parse_op operation, const std::vector<ParseTree*>& elements) {
    ParseTree* node = newNode(pool, operation);
    node->u.list.elements = talloc_zero_array(node, ParseTree*, static_cast<unsigned>(elements.size()));
    if (node->u.list.elements == nullptr) throw std::bad_alloc();
    node->u.list.num_elements = static_cast<unsigned>(elements.size());
    std::copy(elements.begin(), elements.end(), node->u.list.elements);
    return node;
}

ParseTree* newEquality(void* pool, const char* attribute, std::string_view value) {
    ParseTree* node = newNode(pool, LDB_OP_EQUALITY);
    node->u.equality.attr = newText(node, attribute);
    node->u.equality.value = newValue(node, value);
    return node;
}

ParseTree* newPresence(void* pool, const char* attribute) {
    ParseTree* node = newNode(pool, LDB_OP_PRESENT);
    node->u.present.attr = newText(node, attribute);
    return node;
}

}  // namespace vexagent
