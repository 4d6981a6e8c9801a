// SPDX-License-Identifier: Apache-2.0
#include "agent/directory/attributes.h"

#include <algorithm>
#include <array>

#include "vorn/attribute_name.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

constexpr std::array<std::string_view, 20> kIntegers = {
    "uidNumber",      "gidNumber",        "primaryGroupID", "userAccountControl", "groupType",
    "sAMAccountType", "accountExpires",   "pwdLastSet",     "shadowLastChange",   "shadowMin",
    "shadowMax",      "shadowWarning",    "shadowInactive", "shadowExpire",       "shadowFlag",
    "ipServicePort",  "ipProtocolNumber", "oncRpcNumber",   "lockoutTime",        "instanceType"};

// Compared byte by byte: binary values, and paths and names of UNIX, where case
// counts. Everything else ignores case, as Active Directory does.
constexpr std::array<std::string_view, 18> kExact = {
    "objectGUID",        "objectSid",         "sIDHistory",
    "unixHomeDirectory", "loginShell",        "memberUid",
    "userPassword",      "unicodePwd",        "unixUserPassword",
    "jpegPhoto",         "thumbnailPhoto",    "userCertificate",
    "nisNetgroupTriple", "memberNisNetgroup", "nisMapEntry",
    "ipServiceProtocol", "bootFile",          "supplementalCredentials"};

// Values that are no text.
constexpr std::array<std::string_view, 24> kBinary = {"objectGUID",
                                                      "objectSid",
                                                      "sIDHistory",
                                                      "jpegPhoto",
                                                      "photo",
                                                      "thumbnailPhoto",
                                                      "thumbnailLogo",
                                                      "audio",
                                                      "userCertificate",
                                                      "userCert",
                                                      "userSMIMECertificate",
                                                      "userPKCS12",
                                                      "cACertificate",
                                                      "certificateRevocationList",
                                                      "authorityRevocationList",
                                                      "crossCertificatePair",
                                                      "logonHours",
                                                      "userParameters",
                                                      "unicodePwd",
                                                      "unixUserPassword",
                                                      "userPassword",
                                                      "nTSecurityDescriptor",
                                                      "supplementalCredentials",
                                                      "msDS-ManagedPassword"};

bool holds(std::span<const std::string_view> list, std::string_view name) {
    return std::any_of(list.begin(), list.end(),
                       [name](std::string_view other) { return vorn::equalsIgnoreCase(other, name); });
}

}  // namespace

std::span<const std::string_view> integerAttributes() {
    return kIntegers;
}

std::span<const std::string_view> exactAttributes() {
    return kExact;
}

bool isIntegerAttribute(std::string_view attribute) {
    return holds(kIntegers, attribute);
}

bool isBinaryAttribute(std::string_view attribute) {
    const std::string_view bare = vorn::withoutOptions(attribute);
    return holds(kBinary, bare) ||
           vorn::lower(attribute.substr(bare.size())).find(";binary") != std::string::npos;
}

bool ignoresCase(std::string_view attribute) {
    const bool isDn =
        vorn::equalsIgnoreCase(attribute, "dn") || vorn::equalsIgnoreCase(attribute, "distinguishedName");
    return !isDn && !isIntegerAttribute(attribute) && !holds(kExact, attribute);
}

}  // namespace vexagent
