#include "agent/embedded/filter.h"

#include <ldap.h>

#include <algorithm>
#include <charconv>
#include <optional>

#include "agent/embedded/categories.h"
#include "agent/embedded/database.h"
#include "agent/embedded/folding.h"
#include "agent/identifiers.h"
#include "agent/secrets.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

bool is(std::string_view name, std::string_view other) {
    return vorn::equalsIgnoreCase(name, other);
}

std::optional<long long> toNumber(std::string_view text) {
    long long number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return number;
}

// One rewriting of one filter.
class Rewriting {
  public:
    Rewriting(void* pool, const FilterContext& context) : m_pool(pool), m_context(context) {}

    Selection rewrite(ParseTree*& tree) {
        const Selection selection = simplify(tree, false, [this](ParseTree*& assertion, bool negated) {
            return rewriteAssertion(assertion, negated);
        });
        if (selection == Selection::Some) sortByCost(tree);
        return selection;
    }

  private:
    Selection rewriteAssertion(ParseTree*& tree, bool negated) {
        const char* name = assertedAttribute(tree);
        // Undefined: counts as true below a NOT, so that the NOT is false.
        if (name == nullptr || isSecretAttribute(name)) return negated ? Selection::All : Selection::Nothing;
        if (m_context.groupsOf && is(name, "memberUid")) return rewriteMemberUid(tree);
        if (tree->operation == LDB_OP_EQUALITY) return rewriteEquality(tree);
        if (tree->operation == LDB_OP_GREATER || tree->operation == LDB_OP_LESS) return rewriteOrdering(tree);
        return Selection::Some;
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
            tree->u.equality.value = newValue(m_pool, categoryDn(categoryOfClass(value), m_context.domainDn));
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
        const std::optional<long long> number = toNumber(bytesOf(value));
        if (!number) return Selection::Nothing;
        value = newValue(m_pool, std::to_string(*number));
        return Selection::Some;
    }

    ParseTree* newNode(ldb_parse_op operation) {
        auto* node = talloc_zero(m_pool, ParseTree);
        if (node == nullptr) throw std::bad_alloc();
        node->operation = operation;
        return node;
    }

    ParseTree* newOr(unsigned size) {
        ParseTree* node = newNode(LDB_OP_OR);
        node->u.list.elements = talloc_zero_array(node, ParseTree*, size);
        if (node->u.list.elements == nullptr) throw std::bad_alloc();
        node->u.list.num_elements = size;
        return node;
    }

    // A group shows the memberUid that it holds itself and those of its members.
    // Presence asks for either; the other matches see only what is stored.
    Selection rewriteMemberUid(ParseTree*& tree) {
        if (tree->operation == LDB_OP_PRESENT) {
            ParseTree* either = newOr(2);
            either->u.list.elements[0] = tree;
            either->u.list.elements[1] = newNode(LDB_OP_PRESENT);
            either->u.list.elements[1]->u.present.attr = "member";
            tree = either;
        }
        if (tree->operation != LDB_OP_EQUALITY) return Selection::Some;
        const std::vector<std::string> groups = m_context.groupsOf(bytesOf(tree->u.equality.value));
        ParseTree* any = newOr(static_cast<unsigned>(groups.size() + 1));
        any->u.list.elements[0] = tree;
        for (std::size_t i = 0; i < groups.size(); ++i) {
            ParseTree* node = newNode(LDB_OP_EQUALITY);
            node->u.equality.attr = "objectGUID";
            node->u.equality.value = newValue(node, groups[i]);
            any->u.list.elements[i + 1] = node;
        }
        tree = any;
        return Selection::Some;
    }

    // LDB reads an AND's index lists in order and stops once a list is short, so
    // a list of everybody must not come first.
    static void sortByCost(ParseTree* tree) {
        if (tree->operation == LDB_OP_NOT) return sortByCost(tree->u.isnot.child);
        if (tree->operation != LDB_OP_AND && tree->operation != LDB_OP_OR) return;
        auto& list = tree->u.list;
        std::for_each(list.elements, list.elements + list.num_elements, sortByCost);
        if (tree->operation == LDB_OP_AND)
            std::stable_sort(list.elements, list.elements + list.num_elements,
                             [](const ParseTree* a, const ParseTree* b) { return cost(a) < cost(b); });
    }

    static int cost(const ParseTree* tree) {
        if (isQuickFilter(tree)) return 0;
        if (tree->operation != LDB_OP_EQUALITY) return 4;
        const std::string_view name = tree->u.equality.attr;
        if (is(name, "gidNumber") || is(name, "primaryGroupID")) return 2;
        const std::string_view value = bytesOf(tree->u.equality.value);
        const bool everybody = is(value, "user") || is(value, "person") || is(value, "top") ||
                               is(value, "organizationalPerson") ||
                               vorn::startsWithIgnoreCase(value, "CN=Person,");
        return everybody ? 3 : 1;
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

}  // namespace

Result parseFilter(void* pool, const std::string& text, ParseTree*& tree) {
    tree = nullptr;
    if (text.empty()) return {};
    // A NUL would end the text early for LDB.
    if (text.find('\0') == std::string::npos) tree = ldb_parse_tree(pool, withoutOwnNames(text).c_str());
    if (tree != nullptr) return {};
    return Result::ldap(VEX_BAD_FILTER, LDAP_FILTER_ERROR, "bad search filter");
}

Selection rewriteFilter(void* pool, ParseTree*& tree, const FilterContext& context) {
    if (tree == nullptr) return Selection::All;
    return Rewriting(pool, context).rewrite(tree);
}

bool isQuickFilter(const ParseTree* tree) {
    if (tree == nullptr) return false;
    const auto quick = [](const ParseTree* element) { return isQuickFilter(element); };
    const auto& list = tree->u.list;
    switch (tree->operation) {
        case LDB_OP_AND:
            return std::any_of(list.elements, list.elements + list.num_elements, quick);
        case LDB_OP_OR:
            return std::all_of(list.elements, list.elements + list.num_elements, quick);
        case LDB_OP_EQUALITY:
            return !needsFolding(tree) &&
                   (isSelective(tree->u.equality.attr) || is(tree->u.equality.attr, "gidNumber"));
        default:
            return false;
    }
}

}  // namespace vexagent
