// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/krb_profile.h"

#include <profile.h>

#include <cerrno>
#include <memory>
#include <new>
#include <optional>

#include "vorn/strings.h"

namespace vexagent {
namespace {

// What the library would read from krb5.conf.
struct Relation {
    const char* name;
    const char* value;
};
constexpr Relation kRelations[] = {{"dns_lookup_kdc", "false"},
                                   {"dns_lookup_realm", "false"},
                                   {"dns_canonicalize_hostname", "false"},
                                   {"dns_uri_lookup", "false"},
                                   {"rdns", "false"},
                                   {"default_rcache_name", "none:"}};

// One value the way the library wants it: a list that ends with a null.
struct Values {
    explicit Values(std::string value) : text(std::move(value)) {}

    char* list[2] = {nullptr, nullptr};
    std::string text;
};

void freeValues(void*, char** values) {
    delete reinterpret_cast<Values*>(values);
}

// "realms/EXAMPLE.COM/kdc" for the names of a section, of what is in it, and so on.
std::string pathOf(const char* const* names) {
    std::string path;
    for (; *names != nullptr; ++names) path.append(path.empty() ? "" : "/").append(*names);
    return path;
}

std::optional<std::string> findValue(const std::string& domain, const std::string& path) {
    // The library hands over a message only for a realm that has a KDC. Whatever its
    // name, nobody looks it up.
    if (path.starts_with("realms/") && path.ends_with("/kdc")) return "none.invalid";
    if (path == "domain_realm/" + domain || path == "domain_realm/." + domain ||
        path == "libdefaults/default_realm")
        return realmOf(domain);
    for (const Relation& relation : kRelations)
        if (path == std::string("libdefaults/") + relation.name) return relation.value;
    return std::nullopt;
}

// The library copies profiles, so each has the domain's name for itself.
long getValues(void* data, const char* const* names, char*** values) {
    try {
        const auto value = findValue(*static_cast<const std::string*>(data), pathOf(names));
        if (!value) return PROF_NO_RELATION;
        auto* given = new Values(*value);
        given->list[0] = given->text.data();
        *values = given->list;
        return 0;
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
