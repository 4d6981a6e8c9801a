#include "agent/secrets.h"

#include <algorithm>
#include <array>
#include <string>

#include "vorn/strings.h"

namespace vexagent {
namespace {

constexpr std::array<std::string_view, 19> kSecrets = {"userPassword",
                                                       "unixUserPassword",
                                                       "unicodePwd",
                                                       "dBCSPwd",
                                                       "ntPwdHistory",
                                                       "lmPwdHistory",
                                                       "supplementalCredentials",
                                                       "msDS-ManagedPassword",
                                                       "msDS-ManagedPasswordPreviousId",
                                                       "initialAuthIncoming",
                                                       "initialAuthOutgoing",
                                                       "trustAuthIncoming",
                                                       "trustAuthOutgoing",
                                                       "currentValue",
                                                       "priorValue",
                                                       "msDS-ExecuteScriptPassword",
                                                       "ms-Mcs-AdmPwd",
                                                       "msLAPS-Password",
                                                       "msLAPS-EncryptedPassword"};

}  // namespace

bool isSecretAttribute(std::string_view name) {
    if (name.starts_with('@')) return true;
    const std::string_view bare = name.substr(0, name.find(';'));
    return std::any_of(kSecrets.begin(), kSecrets.end(),
                       [bare](std::string_view secret) { return vorn::equalsIgnoreCase(bare, secret); });
}

bool mentionsSecret(std::string_view filter) {
    const std::string text = vorn::lower(filter);
    return std::any_of(kSecrets.begin(), kSecrets.end(), [&text](std::string_view secret) {
        return text.find(vorn::lower(secret)) != std::string::npos;
    });
}

}  // namespace vexagent
