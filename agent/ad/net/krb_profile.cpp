// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/krb_profile.h"

#include <profile.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

#include "vorn/strings.h"

namespace vexagent {
namespace {

// What the library would read from krb5.conf.
struct Relation {
    const char* name;
    const char* value;
};
constexpr std::array<Relation, 6> kRelations = {{{"dns_lookup_kdc", "false"},
                                                 {"dns_lookup_realm", "false"},
                                                 {"dns_canonicalize_hostname", "false"},
                                                 {"dns_uri_lookup", "false"},
                                                 {"rdns", "false"},
                                                 {"default_rcache_name", "none:"}}};

// Gives one value the way the library wants it; it frees it with freeValues.
long giveValue(const std::string& value, char*** values) {
    auto** list = static_cast<char**>(std::calloc(2, sizeof(char*)));
    if (list == nullptr) return ENOMEM;
    list[0] = ::strdup(value.c_str());
    if (list[0] == nullptr) {
        std::free(list);
        return ENOMEM;
    }
    *values = list;
    return 0;
}

void freeValues(void*, char** values) {
    if (values == nullptr) return;
    for (char** value = values; *value != nullptr; ++value) std::free(*value);
    std::free(values);
}

long findValue(const std::string& domain, const char* const* names, char*** values) {
    if (names[0] == nullptr || names[1] == nullptr) return PROF_NO_RELATION;
    const std::string_view section = names[0];
    // The library hands over a message only for a realm that has a KDC. Whatever its
    // name, nobody looks it up.
    if (section == "realms" && names[2] != nullptr && std::string_view(names[2]) == "kdc")
        return giveValue("none.invalid", values);
    if (names[2] != nullptr) return PROF_NO_RELATION;
    const std::string_view name = names[1];
    if (section == "domain_realm" && (name == domain || name == "." + domain))
        return giveValue(realmOf(domain), values);
    if (section != "libdefaults") return PROF_NO_RELATION;
    if (name == "default_realm") return giveValue(realmOf(domain), values);
    for (const Relation& relation : kRelations)
        if (name == relation.name) return giveValue(relation.value, values);
    return PROF_NO_RELATION;
}

// The library copies profiles, so each has the domain's name for itself.
long getValues(void* data, const char* const* names, char*** values) {
    try {
        return findValue(*static_cast<const std::string*>(data), names, values);
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}
void cleanUp(void* data) {
    delete static_cast<std::string*>(data);
}
long copyProfile(void* data, void** copy) {
    *copy = new (std::nothrow) std::string(*static_cast<const std::string*>(data));
    return *copy == nullptr ? ENOMEM : 0;
}

}  // namespace

krb5_context newKrbContext(const std::string& domain) {
    profile_vtable table{};
    table.minor_ver = 1;
    table.get_values = getValues;
    table.free_values = freeValues;
    table.cleanup = cleanUp;
    table.copy = copyProfile;
    profile_t profile = nullptr;
    auto data = std::make_unique<std::string>(vorn::lower(domain));
    if (profile_init_vtable(&table, data.get(), &profile) != 0) throw std::bad_alloc();
    static_cast<void>(data.release());  // the profile frees it
    krb5_context context = nullptr;
    const krb5_error_code code = krb5_init_context_profile(profile, KRB5_INIT_CONTEXT_SECURE, &context);
    profile_release(profile);  // the context has a copy
    if (code != 0) throw std::bad_alloc();
    return context;
}

std::string realmOf(const std::string& domain) {
    return vorn::upper(domain);
}

std::string krb5Settings(const std::string& domain) {
    std::string text = "[libdefaults]\n default_realm = " + realmOf(domain) + "\n";
    for (const Relation& relation : kRelations)
        text.append(" ").append(relation.name).append(" = ").append(relation.value).append("\n");
    const std::string name = vorn::lower(domain);
    return text + "[domain_realm]\n ." + name + " = " + realmOf(domain) + "\n " + name + " = " +
           realmOf(domain) + "\n";
}

}  // namespace vexagent
