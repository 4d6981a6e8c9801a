// SPDX-License-Identifier: Apache-2.0
#include "vorn/secret_names.h"

#include <algorithm>
#include <array>

#include "vorn/attribute_name.h"
#include "vorn/strings.h"

namespace vorn {
namespace {

// In lower case, as all of the names and parts below; sorted.
constexpr std::array<std::string_view, 17> kSecrets = {"currentvalue",
                                                       "initialauthincoming",
                                                       "initialauthoutgoing",
                                                       "ipanthash",
                                                       "krb5key",
                                                       "krbmkey",
                                                       "krbprincipalkey",
                                                       "msfve-keypackage",
                                                       "mskds-rootkeydata",
                                                       "mspkidpapimasterkeys",
                                                       "mstpm-ownerinformation",
                                                       "mstpm-ownerinformationtemp",
                                                       "peklist",
                                                       "priorvalue",
                                                       "trustauthincoming",
                                                       "trustauthoutgoing",
                                                       "userpkcs12"};
static_assert(std::is_sorted(kSecrets.begin(), kSecrets.end()));

// What names of secrets hold.
constexpr std::string_view kSecretParts[] = {"pwd",        "passw",       "passphrase",       "secret",
                                             "privatekey", "credentials", "credentialroaming"};

// What follows in names that tell of passwords but hold none: "pwdLastSet",
// "badPasswordTime", "msLAPS-PasswordExpirationTime".
constexpr std::string_view kHarmlessParts[] = {
    "lastset", "time",   "count",   "age",      "length", "propert",  "expir",    "polic",   "change",
    "require", "allow",  "enabled", "settings", "hint",   "version",  "lock",     "fail",    "warn",
    "quality", "grace",  "reset",   "life",     "limit",  "interval", "preceden", "minlen",  "mindiff",
    "maxfail", "modify", "inhist",  "check",    "can",    "must",     "storage",  "attribut"};

// Named like secrets, holding flags, or a person's DN.
constexpr std::string_view kHarmless[] = {"msds-userdontexpirepassword", "sambalogontochgpwd", "secretary"};

bool hasAny(std::string_view text, const auto& parts) {
    return std::any_of(std::begin(parts), std::end(parts),
                       [text](std::string_view part) { return text.find(part) != std::string_view::npos; });
}

bool soundsSecret(std::string_view name) {
    return std::any_of(std::begin(kSecretParts), std::end(kSecretParts), [name](std::string_view part) {
        // Mostly there is none, and looking forward tells that soonest.
        if (name.find(part) == std::string_view::npos) return false;
        return !hasAny(name.substr(name.rfind(part) + part.size()), kHarmlessParts);
    });
}

// The attribute's name in what stands before a value: "name", "name:dn:rule:", "name>".
std::string_view nameIn(std::string_view item) {
    const std::size_t first = std::min(item.find_first_not_of(' '), item.size());
    return item.substr(first, item.find_first_of(" ~<>:", first) - first);
}

// A value that has a DN's form stands in filters as it is, parentheses included:
// where it ends cannot be told.
bool mayHoldDn(std::string_view text) {
    return lower(text).find("dc") != std::string::npos;
}

}  // namespace

bool isSecretName(std::string_view name) {
    const std::string bare = lower(withoutOptions(name));
    if (bare.starts_with('@') || isNumericName(bare)) return true;
    if (std::binary_search(kSecrets.begin(), kSecrets.end(), bare)) return true;
    return soundsSecret(bare) &&
           std::find(std::begin(kHarmless), std::end(kHarmless), bare) == std::end(kHarmless);
}

std::string withoutSecrets(std::string_view filter) {
    std::string shown;
    shown.reserve(filter.size());
    for (std::size_t begin = 0;;) {
        const std::size_t sign = filter.find_first_of("(=", begin);
        if (sign == std::string_view::npos) return shown.append(filter.substr(begin));
        const std::string_view item = filter.substr(begin, sign - begin);
        shown.append(item).push_back(filter[sign]);
        begin = sign + 1;
        if (filter[sign] == '(') continue;
        const std::string_view value = filter.substr(begin, filter.find(')', begin) - begin);
        const bool hidden = value != "*" && isSecretName(nameIn(item));
        shown.append(hidden ? "***" : value);
        if (hidden && mayHoldDn(filter.substr(begin))) return shown;
        begin += value.size();
    }
}

}  // namespace vorn
