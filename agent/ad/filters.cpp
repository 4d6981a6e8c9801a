// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/filters.h"

#include <ldap.h>

#include <algorithm>
#include <iterator>

#include "agent/directory/categories.h"
#include "vorn/escape.h"
#include "vorn/numbers.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

// Indexed in every Active Directory, with values that few objects share. uid and
// memberUid are not among them.
constexpr std::string_view kSelective[] = {
    "sAMAccountName",       "uidNumber",     "cn",        "name",       "displayName",
    "userPrincipalName",    "mail",          "objectSid", "objectGUID", "distinguishedName",
    "servicePrincipalName", "proxyAddresses"};

bool is(std::string_view name, std::string_view other) {
    return vorn::equalsIgnoreCase(name, other);
}

bool isSelectiveInAd(std::string_view name) {
    return std::any_of(std::begin(kSelective), std::end(kSelective),
                       [name](std::string_view other) { return is(name, other); });
}

// Controllers go through an AND's indexes in their order.
int cost(const ParseTree* tree) {
    if (isQuickAdFilter(tree)) return 0;
    if (tree->operation != LDB_OP_EQUALITY) return 3;
    const std::string_view name = tree->u.equality.attr;
    if (is(name, "gidNumber") || is(name, "primaryGroupID")) return 1;
    return 2;
}

// Whether the filter selects by class or category already.
bool namesClass(const ParseTree* tree) {
    const auto& list = tree->u.list;
    switch (tree->operation) {
        case LDB_OP_AND:
            return std::any_of(list.elements, list.elements + list.num_elements, namesClass);
        case LDB_OP_OR:
            return std::all_of(list.elements, list.elements + list.num_elements, namesClass);
        case LDB_OP_EQUALITY:
            return is(tree->u.equality.attr, "objectClass") || is(tree->u.equality.attr, "objectCategory");
        default:
            return false;
    }
}

ParseTree* unixKinds(void* pool) {
    std::vector<ParseTree*> kinds;
    for (const std::string_view name : unixClasses()) kinds.push_back(newEquality(pool, "objectClass", name));
    return newList(pool, LDB_OP_OR, kinds);
}

ParseTree* notNode(void* pool, ParseTree* child) {
    ParseTree* node = newNode(pool, LDB_OP_NOT);
    node->u.isnot.child = child;
    return node;
}

std::string_view valueOf(const ParseTree* tree) {
    return bytesOf(tree->u.equality.value);
}

ParseTree* without(void* pool, const char* attribute, std::vector<ParseTree*> all) {
    all.push_back(notNode(pool, newPresence(pool, attribute)));
    return newList(pool, LDB_OP_AND, all);
}

// The accounts that show this id because they have none of their own. A person's
// group is made from the primary group's SID.
std::vector<ParseTree*> holdersOf(void* pool, const char* attribute, const std::string& sid,
                                  std::uint32_t rid) {
    std::vector<ParseTree*> holders = {without(pool, attribute, {newEquality(pool, "objectSid", sid)})};
    if (is(attribute, "gidNumber"))
        holders.push_back(without(pool, attribute,
                                  {newEquality(pool, "primaryGroupID", std::to_string(rid)),
                                   newEquality(pool, "objectCategory", "person")}));
    return holders;
}

}  // namespace

std::string escapeFilterValue(std::string_view value) {
    std::string text;
    for (const char c : value) {
        if (c == ' ' || vorn::needsFilterEscape({&c, 1}))
            text += vorn::EscapedByte(c, vorn::Digits::Lower);
        else
            text += c;
    }
    return text;
}

std::string anyOf(const char* name, const std::vector<std::string>& values) {
    std::string text;
    for (const std::string& value : values)
        text.append("(").append(name).append("=").append(escapeFilterValue(value)).append(")");
    return values.size() == 1 ? text : "(|" + text + ")";
}

bool isQuickAdFilter(const ParseTree* tree) {
    if (tree == nullptr) return false;
    const auto& list = tree->u.list;
    switch (tree->operation) {
        case LDB_OP_AND:
            return std::any_of(list.elements, list.elements + list.num_elements, isQuickAdFilter);
        case LDB_OP_OR:
            return std::all_of(list.elements, list.elements + list.num_elements, isQuickAdFilter);
        case LDB_OP_EQUALITY:
            return isSelectiveInAd(tree->u.equality.attr);
        default:
            return false;
    }
}

std::optional<Selection> rewriteMemberAssertion(void* pool, ParseTree*& tree, const GroupsOf& groupsOf) {
    if (!is(assertedAttribute(tree), "memberUid")) return std::nullopt;
    if (tree->operation == LDB_OP_PRESENT)
        tree = newList(pool, LDB_OP_OR, {tree, newPresence(pool, "member")});
    if (tree->operation != LDB_OP_EQUALITY) return Selection::Some;
    std::vector<ParseTree*> any;
    for (const std::string& group : groupsOf(valueOf(tree)))
        any.push_back(newEquality(pool, "objectGUID", group));
    if (any.empty()) return Selection::Nothing;
    tree = newList(pool, LDB_OP_OR, any);
    return Selection::Some;
}

std::optional<Selection> rewriteIdAssertion(void* pool, ParseTree*& tree, const Ids& ids) {
    const char* name = assertedAttribute(tree);
    if (!is(name, "uidNumber") && !is(name, "gidNumber")) return std::nullopt;
    const char* attribute = is(name, "uidNumber") ? "uidNumber" : "gidNumber";
    std::vector<ParseTree*> any = {tree};
    if (tree->operation == LDB_OP_PRESENT) {
        // Whoever has a SID of this domain, save for the rare RID beyond the slice.
        any.push_back(newEquality(pool, "objectCategory", "person"));
        if (is(name, "gidNumber")) any.push_back(newEquality(pool, "objectCategory", "group"));
    } else if (tree->operation == LDB_OP_EQUALITY) {
        const auto id = vorn::parseNumber<std::uint32_t>(valueOf(tree));
        const std::string sid = id ? ids.sidOf(*id) : std::string();
        if (sid.empty()) return std::nullopt;
        for (ParseTree* holder : holdersOf(pool, attribute, sid, *id - *ids.first())) any.push_back(holder);
    } else {
        return std::nullopt;
    }
    tree = newList(pool, LDB_OP_OR, any);
    return Selection::Some;
}

vorn::Expected<std::optional<std::string>, Result> makeAdFilter(const Query& query,
                                                                const FilterContext& context) {
    const Pool pool = newPool();
    ParseTree* tree = nullptr;
    if (Result parsed = parseFilter(pool.get(), query.filter, tree); !parsed.ok())
        return vorn::unexpected(std::move(parsed));
    const Selection selection = rewriteAssertions(pool.get(), tree, context);
    if (selection == Selection::Nothing) return std::nullopt;
    const bool typed = query.typed && query.scope != LDAP_SCOPE_BASE;
    if (selection == Selection::All) {
        if (!typed) return "(objectClass=*)";
        tree = unixKinds(pool.get());
    } else if (typed && !isQuickAdFilter(tree) && !namesClass(tree)) {
        tree = newList(pool.get(), LDB_OP_AND, {tree, unixKinds(pool.get())});
    }
    sortAnds(tree, cost);
    const Talloc<char> written(ldb_filter_from_tree(pool.get(), tree));
    if (written) return written.get();
    return vorn::unexpected(Result::ldap(VEX_BAD_FILTER, LDAP_FILTER_ERROR, "bad search filter"));
}

}  // namespace vexagent
