// Agent objects as slapd entries.
#pragma once

#include <string>

#include "search/handles.h"
#include "search/request.h"
#include "translate/ldif.h"
#include "vex/handles.h"

#include "backend/slapd.h"

// Makes the entries of one request.
class EntryMaker {
  public:
    EntryMaker(const SearchRequest& request, int scope, bool omitDn);

    enum class Result {
        Made,
        Skipped,     // the object makes no entry of this search
        Unreadable,  // the object's DN could not be read
        NotFetched,  // the object could not be fetched by its DN
    };

    // Converts the object. A search for DNs in the forest fetches the whole object
    // first, in *object's place. *code is the agent's for the last two results.
    Result make(vexSession* session, vex::UniqueObject* object, UniqueEntry* entry, vexCode* code) const;

    // The entry of an LDIF text, or null when it is none. By value: slapd works in
    // the text itself, and the caller's copy is what a complaint shows.
    static UniqueEntry parse(std::string ldif);

  private:
    Result fetchByDn(vexSession* session, vex::UniqueObject* object, vexCode* code) const;
    std::string toLdif(vexSession* session, const vexObject* object) const;
    bool isOtherThanBase(const Entry* entry) const;

    const SearchRequest& m_request;
    const bool m_baseScope;
    const LdifRequest m_ldifRequest;
};
