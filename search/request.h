// SPDX-License-Identifier: Apache-2.0
// A search request in the agent's terms.
//
// Prepared step by step, in the order of the functions below: the search handler
// decides between the steps whether the request goes on.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "search/attributes.h"
#include "translate/ldif.h"
#include "vex/vex.h"

#include "backend/base/slapd_fwd.h"

// Why a request ends before the agent is asked.
struct Rejection {
    int result;        // LDAP result code
    const char* text;  // static; null for none
};

// What the steps find out.
struct SearchRequest {
    int scope = 0;            // LDAP's; set before the first step
    std::string filter;       // the agent's filter text
    bool caseCounts = false;  // of its values; the cache's key has them in lower case
    std::string agentType;    // the object type's name at the agent; empty when the map has none
    bool netgroups = false;   // netgroups, from the zone's RFC 2307 maps
    std::string zoneDomain;   // the zone's domain; only for netgroups
    std::string base;         // the agent's search base
    bool fetchByDn = false;   // find DNs in the forest, then fetch each object by DN

    LdifRequest shown;  // what of the objects: its object type is the map's key, and the
                        // object class that the filter asks for

    bool cacheable = false;       // may use and fill the search cache
    std::string key;              // the search cache's key
    bool fetchByUidDone = false;  // the base's uid became the filter
};

// Object type and filter.
std::optional<Rejection> prepareFilter(const Filter* filter, SearchRequest* request);

// Search base: the request's own, or the zone's netgroups.
std::optional<Rejection> prepareBase(std::string_view dn, SearchRequest* request);

// "cn=$" at the head of the base asks for the forest.
void prepareFetchByDn(SearchRequest* request);

// The attributes to ask for, and what they were made of: valid until the thread's next
// call.
const AttributeList& prepareAttributes(const AttributeName* names, SearchRequest* request);

// Whether the cache may serve the request (cacheEnabled: whether there is one to
// ask), and under which key.
void prepareCaching(bool cacheEnabled, SearchRequest* request);

// A base of uid=... with the filter that matches anything becomes a filter for
// that uid.
void prepareFetchByUid(SearchRequest* request);

// The LDIF of the entry that stands for the back-end's own suffix, as a client's DN
// names it.
std::string domainEntryLdif(std::string_view suffix, std::string_view dn);

// The names in a vexLdapSearchOpen's form: null-terminated, valid as long as the
// list of names.
std::vector<const char*> namesForAgent(const AttributeNames& names);
