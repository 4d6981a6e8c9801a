// SPDX-License-Identifier: Apache-2.0
// Agent objects as LDIF text (RFC 2849) that slapd's str2entry reads.
#pragma once

#include <string>
#include <string_view>

#include "translate/attribute_names.h"
#include "vex/vex.h"

// What of an object is written, and how.
struct LdifRequest {
    std::string objectType;    // the LDAP object class that the search asked for; may be empty
    bool includeCn = false;    // the client asked for cn by name
    AttributeNames requested;  // empty means all
    bool omitDn = false;       // an empty DN line

    bool operator==(const LdifRequest&) const = default;
};

// The object's text: the DN line, the attributes that gTranslationMap names, then
// the others. Lines end in "\n". Never fails: what cannot be read is logged and left
// out. str2entry does not take a text without a DN line. A value that is not UTF-8 is
// left out when slapd knows the attribute's syntax as text; this is logged once for each
// attribute of an object. The DN is written as it is, and in base64 only when it holds a
// line break. Safe for several threads, each with its own session.
// complained, if given, is set when another error was logged, and left alone otherwise.
std::string object_to_ldif(vexSession* session, const vexObject* object, const LdifRequest& request,
                           bool* complained = nullptr);

// Appends the lines of one attribute. A value that is not printable is written in base64.
// For a value whose data pointer is null only the name is written, with no separator and
// no line end.
void attr_values_to_ldif(std::string* ldif, std::string_view name, const vexBlob* values, int count);
