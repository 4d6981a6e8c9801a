// SPDX-License-Identifier: Apache-2.0
// The kinds of entries that a directory's objects become.
//
// In the standard mode one object is one entry, whatever a client asks for. An object's
// kind says which: the classes that the entry may have, its attributes, and where their
// values come from. The kinds are made once, of the translation map and the schema
// (standard/kinds_of_map.h). They are only read after that, by any thread.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "vorn/strings.h"

namespace standard {

// How values of an attribute are compared, as far as a question to the agent needs to know.
enum class Match {
    Folded,  // text: case does not count, nor how many blanks there are
    Exact,   // text: case counts
    Number,
    Dn,
    Other,  // what the agent cannot be asked about but for presence
};

// How the agent's values become shown ones.
enum class Form {
    Same,
    Uuid,      // objectGUID's bytes: an entryUUID
    Time,      // "20260102030405.0Z": without the fraction
    Computed,  // has no source: the gateway makes it, or slapd does
};

struct ShownAttribute {
    std::string name;  // as the schema spells it
    Match match = Match::Other;
    Form form = Form::Same;
    std::vector<std::string> sources;  // the agent's attributes; all their values are shown
    bool operational = false;
};

struct ShownClass {
    std::string name;
    std::vector<std::string> needs;   // shown attributes; an entry without one of them has not this class
    std::vector<std::string> allows;  // shown attributes, with those of the superiors
    bool holdsTheRest = false;        // is there for what no other class allows
};

// What the rules beyond the map's lines hang on.
enum class Sort { Person, Group, Host, Netgroup, Other };

struct Kind {
    Sort sort = Sort::Other;

    // The class of the agent's objects, as the map has it ("User", "Group").
    std::string objectClass;
    // The agent's filter for objects of this kind, a whole one.
    std::string condition;
    // The agent's attribute whose value is shown as the DN's leading "cn="; empty: the real
    // DN is shown.
    std::string naming;

    // Whether objects are shown that are no UNIX entries, and the classes that they then
    // do not have.
    bool showsIncomplete = false;
    std::vector<std::string> incompleteWithout;

    // Whether the ageing of passwords is worked out from the account (standard/shadow.h).
    bool shadowOfAccount = false;

    // What an entry may have as objectClass, superiors included, in the order in which they
    // are shown: first the chain down to the structural class. An entry that lacks what the
    // structural one needs has the fallback's chain instead, if there is one.
    std::vector<ShownClass> classes;
    std::string structural;
    std::vector<ShownClass> fallback;
    std::vector<ShownAttribute> attributes;

    // The attributes that an assertion on a type is about: itself, and its subtypes. By
    // the schema's name of the type, ignoring case; none: entries of this kind never have it.
    std::map<std::string, std::vector<std::size_t>, vorn::StringCaseLessThan> byType;

    const std::vector<std::size_t>* find(std::string_view type) const;
    bool mayHaveClass(std::string_view name) const;
};

using Kinds = std::vector<Kind>;

// Whether people's uid is sAMAccountName, which all of them have.
bool namesAccounts(const Kinds& kinds);

}  // namespace standard
