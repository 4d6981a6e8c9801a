// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/known_domains.h"

#include <algorithm>
#include <optional>

#include "vorn/dn.h"
#include "vorn/numbers.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

constexpr int kDomainPartition = 0x1 | 0x2;  // of systemFlags: in this forest, and a domain
constexpr int kTheyTrustUs = 0x1;            // of trustDirection
constexpr int kWithControllers = 2;          // of trustType; others are realms and old servers

// What may stand in a name that DNS is asked for.
bool isNameByte(char c) {
    const char letter = vorn::lower(c);
    return (letter >= 'a' && letter <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_' || c == '.' ||
           static_cast<unsigned char>(c) >= 0x80;
}

}  // namespace

const std::vector<std::string> KnownDomains::kPartitionAttributes = {"nCName", "nETBIOSName", "systemFlags"};
const std::vector<std::string> KnownDomains::kTrustAttributes = {"trustPartner", "trustDirection",
                                                                 "trustType"};

void KnownDomains::add(const std::string& name) {
    const bool isName =
        std::all_of(name.begin(), name.end(), isNameByte) && vorn::DN::isDN(vorn::DN::dnFromDomain(name));
    if (isName && m_names.size() < kMost) m_names.insert(vorn::lower(name));
}

void KnownDomains::addPartition(const Entry& partition) {
    // Domains have a short name; flags that are there must say the same.
    if (partition.first("nETBIOSName").empty()) return;
    const std::string_view flags = partition.first("systemFlags");
    if (!flags.empty() && (vorn::parseNumber<int>(flags).value_or(0) & kDomainPartition) != kDomainPartition)
        return;
    const std::string root(partition.first("nCName"));
    const std::string name = vorn::DN::domainFromDN(root);
    if (vorn::equalsIgnoreCase(vorn::DN::dnFromDomain(name), root)) add(name);
}

void KnownDomains::addTrust(const Entry& trust) {
    const bool letsUsIn =
        (vorn::parseNumber<int>(trust.first("trustDirection")).value_or(0) & kTheyTrustUs) != 0;
    if (letsUsIn && vorn::parseNumber<int>(trust.first("trustType")) == kWithControllers)
        add(std::string(trust.first("trustPartner")));
}

}  // namespace vexagent
