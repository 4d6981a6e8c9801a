// SPDX-License-Identifier: Apache-2.0
// Distinguished names as text (RFC 4514), on libldap's parser.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vorn {

struct DN {
    // Whether the text is a DN of at least one RDN.
    static bool isDN(const std::string& text);

    // The DN without its first RDN, as the text has it (spelling and spacing
    // kept); empty for a DN of one RDN and for text that is no DN.
    static std::string parent(const std::string& dn);

    // The types and values that the DN begins with, as pairs: more than one where they are
    // joined by "+". Empty for text that is no DN.
    static std::vector<std::pair<std::string, std::string>> firstRdn(const std::string& dn);

    // The DNS name that the DN's domain components make, in the DN's spelling:
    // "example.com" for "CN=x,DC=example,DC=com". Empty when there are none.
    static std::string domainFromDN(const std::string& dn);

    // "DC=example,DC=com" for "example.com"; empty for an empty name.
    static std::string dnFromDomain(const std::string& domain);

    // Whether a NUL stands in the text, as it is or escaped as "\00". No name holds
    // one; what reads such a text as a C string takes it for another, shorter name.
    static bool holdsNul(std::string_view dn);

    // The value as it stands in a DN, with the escapes of RFC 4514.
    static std::string escapeValue(std::string_view value);
};

}  // namespace vorn
