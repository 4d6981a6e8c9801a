// SPDX-License-Identifier: Apache-2.0
// The entries of the standard mode: those that a client's filter is true for.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "cache/guid_list.h"
#include "search/handles.h"
#include "standard/extras.h"
#include "standard/kinds.h"
#include "standard/object_search.h"
#include "standard/question.h"
#include "standard/references.h"
#include "standard/shadow.h"
#include "standard/shown_entry.h"

#include "backend/base/slapd_fwd.h"

namespace standard {

// The kinds of this process: set once, before the first operation.
void useKinds(Kinds kinds);
const Kinds& usedKinds();

// A filter that has too many parts. libvex has no such code.
inline constexpr vexCode kFilterRefused = -2;

// A search as a client means it. All of it outlives the search.
struct Wanted {
    const berval& dn;   // the base as it is shown
    const berval& ndn;  // its normal form
    int scope;          // LDAP's
    Filter* filter;     // null: true for all
    Extras extras;
    // Whether the filter's truth for an entry hangs on nothing but the object that it is made
    // of, for clients that may search all that it is about. Then it is found out once for an
    // object in the cache.
    bool lasting = false;
};

// For use by one thread.
class EntrySearch {
  public:
    EntrySearch(Operation* op, const Wanted& wanted)
        : m_op(op), m_wanted(wanted), m_references(op, wanted.filter) {}

    // Asks the cache, or the agent. VEX_OK, kFilterRefused, or the agent's code.
    vexCode open();
    // The same, for a base that the directory has by another name, if it has it. Where
    // the base was missing, open() has done so.
    vexCode openElsewhere();
    bool hasLookedElsewhere() const { return m_hasLookedElsewhere; }
    // Goes on with what an earlier request has opened; false if that was another search.
    bool resume(SharedHandle handle);

    // The next entry that is in scope and for which the filter is true. Null with
    // VEX_END_OF_RESULTS after the last one, else with why there are no more to be had.
    SharedEntry next(vexCode* code);

    // Tells the cache what was found.
    void finish();

    vexSession* session() const { return m_objects.session(); }
    const SharedHandle& handle() const { return m_objects.handle(); }

  private:
    std::string key() const;
    vexCode ask();
    bool makeFilter();
    SharedEntry keptEntry(const FoundObject& found) const;
    SharedEntry entryOf(const FoundObject& found, vexCode* code);
    vexCode readPolicy();
    vexCode addExtras(const Kind& kind, const AgentObject& object, ShownEntry* shown);
    GuidList::Verdict* verdictOn(const FoundObject& found) const;
    bool isWanted(const FoundObject& found, Entry* entry);
    bool maySearchAll(Entry* entry);
    bool isTrueFor(Entry* entry) const;

    Operation* const m_op;
    const Wanted& m_wanted;
    std::optional<std::string> m_filter;  // the agent's, once it was needed; empty: nothing can match
    std::optional<bool> m_maySearchAll;   // once it was needed
    ObjectSearch m_objects;
    References m_references;
    std::optional<PasswordPolicy> m_policy;  // once it was needed
    bool m_hasLookedElsewhere = false;
};

// The entry of this name. Null with VEX_OK if there is none, else with the agent's code.
SharedEntry findEntry(Operation* op, const berval& dn, const berval& ndn, const Extras& extras,
                      vexCode* code);

// The nearest entry above a name that does not exist, if the client may know of it
// (matchedDN); null without one, and where that cannot be told.
SharedEntry findMatched(Operation* op, berval dn, berval ndn);

}  // namespace standard
