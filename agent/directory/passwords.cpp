// SPDX-License-Identifier: Apache-2.0
#include "agent/directory/passwords.h"

#include <crypt.h>
#include <ldap.h>

#include <cstring>
#include <memory>
#include <optional>

#include "vorn/secret.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

// crypt_r's working memory holds the password: wiped before it is released.
struct WipeCryptData {
    void operator()(crypt_data* data) const {
        vorn::wipe(data, sizeof *data);
        delete data;
    }
};
using CryptData = std::unique_ptr<crypt_data, WipeCryptData>;

constexpr std::string_view kScheme = "{CRYPT}";

// Nothing when no hash can be computed.
std::optional<bool> fits(const std::string& password, const std::string& hash) {
    const CryptData data(new crypt_data());
    const char* computed = crypt_r(password.c_str(), hash.c_str(), data.get());
    // crypt_r reports failure by null or by text that begins with "*".
    if (computed == nullptr || computed[0] == '*') return std::nullopt;
    return vorn::equalInConstantTime(computed, hash);
}

// The crypt(3) hash in a stored value; empty when there is none.
std::string_view hashIn(std::string_view value) {
    if (vorn::startsWithIgnoreCase(value, kScheme)) value.remove_prefix(kScheme.size());
    const bool other = value.empty() || value[0] == '{' || value[0] == '*' || value[0] == '!';
    return other ? std::string_view() : value;
}

// A setting of the strength that new hashes have, made once; only the work counts.
const std::string& newSetting() {
    static const std::string made = [] {
        char setting[CRYPT_GENSALT_OUTPUT_SIZE] = {};
        crypt_gensalt_rn("$y$", 0, "no user has this", 16, setting, sizeof setting);
        return std::string(setting);
    }();
    return made;
}

}  // namespace

bool fitsAnyHash(const std::string& password, const std::vector<std::string_view>& storedValues,
                 const std::string& idleSetting) {
    // crypt(3) reads up to a NUL: a longer password must not pass for its start.
    const bool whole = password.find('\0') == std::string::npos;
    bool fitting = false;
    bool tried = false;
    for (const std::string_view value : storedValues) {
        const vorn::Secret hash(hashIn(value));
        if (hash.empty()) continue;
        const std::optional<bool> result = fits(password, hash.text());
        tried = tried || result.has_value();
        fitting = result.value_or(false) || fitting;
    }
    if (!tried) fits(password, idleSetting.empty() ? newSetting() : idleSetting);
    return fitting && whole;
}

class HashProof {
  public:
    static Accepted make() { return Accepted(); }
};

std::optional<Accepted> acceptedByHash(const std::string& password,
                                       const std::vector<std::string_view>& storedValues,
                                       const std::string& idleSetting) {
    if (!fitsAnyHash(password, storedValues, idleSetting)) return std::nullopt;
    return HashProof::make();
}

std::string newHash(const std::string& password) {
    char setting[CRYPT_GENSALT_OUTPUT_SIZE] = {};
    // Without bytes given the salt comes from the system's random numbers.
    if (password.find('\0') != std::string::npos ||
        crypt_gensalt_rn("$y$", 0, nullptr, 0, setting, sizeof setting) == nullptr)
        return {};
    const CryptData data(new crypt_data());
    const char* computed = crypt_r(password.c_str(), setting, data.get());
    return computed == nullptr || computed[0] == '*' ? std::string() : std::string(computed);
}

Result badNewPassword(std::string why) {
    return Result::ldap(VEX_REFUSED, LDAP_CONSTRAINT_VIOLATION, std::move(why));
}

Result noPasswordChange(std::string why) {
    return Result::ldap(VEX_NOT_SUPPORTED, LDAP_UNWILLING_TO_PERFORM, std::move(why));
}

std::string settingOf(std::string_view storedValue) {
    constexpr std::size_t kBcrypt = 29;  // "$2b$05$" and 22 characters of salt
    constexpr std::size_t kBsdi = 9;     // "_", four of strength and four of salt
    constexpr std::size_t kDes = 2;
    const std::string_view hash = hashIn(storedValue);
    if (hash.starts_with("$2")) return std::string(hash.substr(0, kBcrypt));
    if (hash.starts_with("$")) return std::string(hash.substr(0, hash.rfind('$')));
    return std::string(hash.substr(0, hash.starts_with("_") ? kBsdi : kDes));
}

}  // namespace vexagent
