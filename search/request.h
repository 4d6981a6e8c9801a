// A search request in the agent's terms.
//
// Prepared step by step, in the order of the functions below: the search handler
// decides between the steps whether the request goes on.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "translate/ldif.h"
#include "vex/vex.h"

#include "backend/base/slapd.h"

// Why a request ends before the agent is asked.
struct Rejection {
    int result;        // LDAP result code
    const char* text;  // static; null for none
};

// What the steps find out.
struct SearchRequest {
    std::string typeAttribute;  // the attribute that named the object type
    std::string objectType;     // the object class that the filter asks for; the map's key
    std::string agentType;      // what the map says of it; empty when it says nothing
    std::string filter;         // the agent's filter text
    bool caseCounts = false;    // of its values; the cache's key has them in lower case
    bool netgroups = false;     // netgroups, from the zone's RFC 2307 maps
    std::string zoneDomain;     // the zone's domain; only for netgroups
    std::string base;           // the agent's search base
    std::string firstRdn;       // the request's base up to its first comma
    bool fetchByDn = false;     // find DNs in the forest, then fetch each object by DN

    std::vector<std::string> attributes;  // the agent's names; empty means all
    std::string oldAttributes;            // for the log, if it is read: each name followed by a blank
    std::string newAttributes;
    bool includeCn = false;  // the client asked for cn by name

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

// The attributes to ask for.
void prepareAttributes(const AttributeName* names, SearchRequest* request);

// Whether the cache may serve the request (cacheEnabled: whether there is one to
// ask), and under which key.
void prepareCaching(bool cacheEnabled, int scope, SearchRequest* request);

// A base of uid=... with the filter that matches anything becomes a filter for
// that uid.
void prepareFetchByUid(int scope, SearchRequest* request);

// The LDIF of the entry that stands for the back-end's own suffix.
std::string domainEntryLdif(std::string_view suffix, std::string_view firstRdn);

// The names in a vexLdapSearchOpen's form: null-terminated, valid as long as the
// list of names.
std::vector<const char*> namesForAgent(const std::vector<std::string>& names);
