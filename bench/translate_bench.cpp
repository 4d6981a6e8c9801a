// SPDX-License-Identifier: Apache-2.0
// What translation costs a search, without slapd: a filter into the agent's text, and
// objects into LDIF text: a person with 12 attributes and with 60, all of them asked
// for or seven by name, and a group of 5,000 members. The translation file is the
// example's.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "backend/base/settings.h"
#include "translate/filter.h"
#include "translate/filter_builder_testing.h"
#include "translate/ldif.h"
#include "vex/handles.h"
#include "vex/object.h"
#include "vex/scripted_agent_testing.h"
#include "vorn/properties.h"

#include "tests/standin/slapd_standin.h"

namespace {

constexpr char kFilter[] =
    "(&(objectClass=posixAccount)(uid=ann)(uidNumber=20001)(|(homeDirectory=/home/ann)(cn=*)))";

const vorn::Properties* map() {
    static const vorn::Properties* const loaded = [] {
        auto* const properties = new vorn::Properties;
        properties->load(ZX_EXAMPLES "/rfc2307.map", false);
        gTranslationMap = properties;
        return properties;
    }();
    return loaded;
}

// What every person has: 12 attributes.
vextest::AttributeList person() {
    return {{"_dn", {"CN=Ann Lee,OU=Engineering,OU=People,DC=example,DC=com"}},
            {"_GUID", {"6f1c2b7e-0d54-4a39-9c1b-2e5f8a7d1001"}},
            {"_objectCategory", {"Person"}},
            {"objectClass", {"top", "person", "organizationalPerson", "user"}},
            {"cn", {"Ann Lee"}},
            {"sAMAccountName", {"ann"}},
            {"uidNumber", {"20001"}},
            {"gidNumber", {"10000"}},
            {"unixHomeDirectory", {"/home/ann"}},
            {"loginShell", {"/bin/bash"}},
            {"gecos", {"Ann Lee"}},
            {"mail", {"ann@example.com"}}};
}

vextest::AttributeList personWith(std::size_t attributes) {
    vextest::AttributeList list = person();
    while (list.size() < attributes) {
        list.push_back({"extensionAttribute" + std::to_string(list.size()), {"a value of usual length"}});
    }
    return list;
}

vextest::AttributeList groupOf(int members) {
    std::vector<std::string> names;
    for (int i = 0; i < members; ++i) names.push_back("member" + std::to_string(i));
    return {{"_dn", {"CN=everybody,OU=Groups,DC=example,DC=com"}},
            {"_GUID", {"6f1c2b7e-0d54-4a39-9c1b-2e5f8a7d1002"}},
            {"_objectCategory", {"Group"}},
            {"objectClass", {"top", "group"}},
            {"sAMAccountName", {"everybody"}},
            {"gidNumber", {"10000"}},
            {"memberUid", names}};
}

vex::UniqueObject objectOf(const vextest::AttributeList& attributes) {
    const std::string bytes = vextest::packed(attributes);
    return vex::UniqueObject(new vexObject{
        vex::ObjectRef::copyOf({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()})});
}

void filterOfFiveTerms(benchmark::State& state) {
    FilterBuilder builder;
    const Filter* const filter = builder.parse(kFilter);
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(filter_as_string("posixAccount", filter, map()));
}

void toLdif(benchmark::State& state, const vextest::AttributeList& attributes, const LdifRequest& request) {
    map();
    const vex::UniqueObject object = objectOf(attributes);
    std::size_t bytes = 0;
    for ([[maybe_unused]] auto _ : state) {
        const std::string ldif = object_to_ldif(nullptr, object.get(), request);
        bytes = ldif.size();
        if (bytes == 0) state.SkipWithError("no text");
    }
    state.counters["bytes"] = static_cast<double>(bytes);
}

void personWhole(benchmark::State& state) {
    toLdif(state, personWith(static_cast<std::size_t>(state.range(0))), {"posixAccount", false, {}, false});
}

void personByName(benchmark::State& state) {
    const std::vector<std::string> names = {"sAMAccountName", "uidNumber",         "gidNumber",
                                            "gecos",          "unixHomeDirectory", "loginShell",
                                            "sAMAccountName", "_objectCategory",   "_nssEntryInvalid"};
    toLdif(state, personWith(static_cast<std::size_t>(state.range(0))), {"posixAccount", true, names, false});
}

void groupOfFiveThousand(benchmark::State& state) {
    toLdif(state, groupOf(5'000), {"posixGroup", false, {}, false});
}

BENCHMARK(filterOfFiveTerms);
BENCHMARK(personWhole)->Arg(12)->Arg(60)->ArgName("attributes");
BENCHMARK(personByName)->Arg(12)->Arg(60)->ArgName("attributes");
BENCHMARK(groupOfFiveThousand)->Unit(benchmark::kMicrosecond);

}  // namespace
