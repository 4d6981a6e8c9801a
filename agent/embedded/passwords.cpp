#include "agent/embedded/passwords.h"

#include <crypt.h>

#include <cstring>
#include <memory>

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

bool fits(const std::string& password, const std::string& hash) {
    const CryptData data(new crypt_data());
    const char* computed = crypt_r(password.c_str(), hash.c_str(), data.get());
    // crypt_r reports failure by null or by text that begins with "*".
    return computed != nullptr && computed[0] != '*' && equalSecrets(computed, hash);
}

// A setting of the strength that new hashes have, made once; only the work counts.
const std::string& idleHash() {
    static const std::string hash = [] {
        char setting[CRYPT_GENSALT_OUTPUT_SIZE] = {};
        crypt_gensalt_rn("$y$", 0, "no user has this", 16, setting, sizeof setting);
        return std::string(setting);
    }();
    return hash;
}

}  // namespace

bool equalSecrets(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    unsigned char difference = 0;
    for (std::size_t i = 0; i < a.size(); ++i)
        difference = static_cast<unsigned char>(difference | (a[i] ^ b[i]));
    return difference == 0;
}

bool fitsAnyHash(const std::string& password, const std::vector<std::string>& storedValues) {
    // crypt(3) reads up to a NUL: a longer password must not pass for its start.
    const bool whole = password.find('\0') == std::string::npos;
    bool fitting = false;
    bool tried = false;
    for (const std::string& value : storedValues) {
        std::string hash = value;
        if (vorn::startsWithIgnoreCase(hash, kScheme)) hash.erase(0, kScheme.size());
        if (hash.empty() || hash[0] == '{' || hash[0] == '*' || hash[0] == '!') continue;
        tried = true;
        fitting = fits(password, hash) || fitting;
        vorn::wipe(hash);
    }
    if (!tried) fits(password, idleHash());
    return fitting && whole;
}

}  // namespace vexagent
