// SPDX-License-Identifier: Apache-2.0
// Whatever an object is called, its shown name is a DN below its own parent, and what is asked
// for that name is the object's own value.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "standard/kinds_testing.h"
#include "standard/names.h"
#include "standard/shown_entry.h"
#include "translate/filter_builder_testing.h"
#include "vorn/dn.h"

#include "tests/standin/slapd_standin.h"

namespace {

constexpr char kParent[] = "OU=G,DC=example,DC=com";

void must(bool holds) {
    if (!holds) std::abort();
}

const standard::Kinds& kinds() {
    static const standard::Kinds& theOnes = *new standard::Kinds(standard::peopleAndGroups());
    return theOnes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string name(reinterpret_cast<const char*>(data), size);
    standard::AgentObject object;
    object.add("_dn", std::string("CN=x,") + kParent);
    object.add("objectClass", "group");
    object.add("sAMAccountName", name);
    const standard::Kind* kind = standard::kindOf(kinds(), object);
    must(kind != nullptr && !kind->naming.empty());
    const std::string shown = standard::shownDn(*kind, object);
    if (name.empty()) {
        must(shown == object.first("_dn"));
        return 0;
    }
    must(vorn::DN::parent(shown) == kParent);
    const auto rdn = vorn::DN::firstRdn(shown);
    must(rdn.size() == 1 && rdn[0].first == "cn" && rdn[0].second == name);

    const standard::AgentQuestion question =
        standard::placedQuestion("(a=1)", shown, LDAP_SCOPE_BASE, kinds());
    must(question.base == kParent && question.scope == LDAP_SCOPE_ONELEVEL);
    FilterBuilder builder;
    builder.parse(question.filter);
    must(std::count(builder.values().begin(), builder.values().end(), name) == (name == "1" ? 3 : 2));
    return 0;
}
