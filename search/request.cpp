// SPDX-License-Identifier: Apache-2.0
#include "search/request.h"

#include <utility>

#include "backend/base/log.h"
#include "backend/base/settings.h"
#include "cache/search_cache.h"
#include "search/attributes.h"
#include "translate/filter.h"
#include "translate/map.h"
#include "vorn/dn.h"
#include "vorn/exception.h"
#include "vorn/settings.h"
#include "vorn/strings.h"

#include "backend/base/slapd.h"

namespace {

constexpr char kNetgroupType[] = "nisNetgroup";
constexpr char kNetgroupPath[] = "CN=netgroup,CN=Rfc2307NisMaps,";
constexpr char kFetchByDnMarker[] = "cn=$";
constexpr char kPosixAccount[] = "posixAccount";

// Gives the attribute that names it.
std::string findObjectType(const Filter* filter, SearchRequest* request) {
    std::string attribute;
    if (find_object_type(filter, &attribute, &request->shown.objectType))
        request->agentType = translate_name(gTranslationMap, request->shown.objectType, "");
    return attribute;
}

void translateFilter(std::string_view objectType, const Filter* filter, const vorn::Properties* map,
                     SearchRequest* request) {
    TranslatedFilter translated = translate_filter(objectType, filter, map);
    request->filter = std::move(translated.text);
    request->caseCounts = translated.caseCounts;
}

void takeNetgroupPath(const Filter* filter, SearchRequest* request) {
    request->netgroups = true;
    request->agentType.clear();
    JPrintf("vex search: nisNetgroup use Rfc2307 NisNetgroup");
    translateFilter("", filter, nullptr, request);
}

// Whether a netgroup search's base names a place of its own, which is kept.
bool isOwnPlace(const std::string& base) {
    if (base.empty()) return false;
    const std::string upper = vorn::upper(base);
    const bool onlyDomainComponents = vorn::DN::isDN(base) && upper.find("OU=") == std::string::npos &&
                                      upper.find("CN=") == std::string::npos;
    return !onlyDomainComponents;
}

// A DN's value as a filter's. What slapd has escaped in the DN stays: a backslash and two
// hexadecimal digits mean the same in both. The rest is escaped here: a uid such as "*"
// names nobody and must not match everybody.
std::string uidAsAssertion(std::string_view uid) {
    std::string value;
    for (const char c : uid) {
        if (c == '\\')
            value += c;
        else
            value += escape_filter_value({&c, 1});
    }
    return value;
}

std::optional<Rejection> prepareNetgroupBase(SearchRequest* request) {
    const std::string zone = vorn::loadSetting(vorn::SETTING_ZONE_REALNAME);
    if (zone.empty()) return Rejection{LDAP_OTHER, "vex dirgate: can not get currently joined zone dn"};
    request->zoneDomain = vorn::DN::domainFromDN(zone);
    if (isOwnPlace(request->base)) return std::nullopt;

    const std::string domain = vorn::loadSetting(vorn::SETTING_DOMAIN_NAME);
    if (domain.empty()) return Rejection{LDAP_OTHER, "vex dirgate: can not get currently joined domain name"};
    const std::string base = vorn::upper(request->base);
    if (base.empty() || base == vorn::upper(vorn::DN::dnFromDomain(domain))) {
        JPrintf("vex search: uses currently joined zone dn and rfc2307 nisnetgroup path as the search base");
        request->base = kNetgroupPath + zone;
        return std::nullopt;
    }
    if (base == vorn::upper(vorn::DN::dnFromDomain(request->zoneDomain))) {
        JPrintf("vex search: uses currently joined zone domain dn as the search base");
        return std::nullopt;
    }
    return Rejection{
        LDAP_OTHER,
        "vex dirgate: the specified search base is different from the currently joined domain dn "
        "or the currently joined zone domain dn"};
}

}  // namespace

std::optional<Rejection> prepareFilter(const Filter* filter, SearchRequest* request) try {
    const vorn::Properties* map = translation_active(gTranslationMap) ? gTranslationMap : nullptr;
    if (map != nullptr) {
        const std::string attribute = findObjectType(filter, request);
        if (gNetgroupUseRfc2307 && request->agentType == kNetgroupType) {
            takeNetgroupPath(filter, request);
            return std::nullopt;
        }
        JPrintf("vex search: objectType = %s (%s is mapped to %s)", attribute.c_str(),
                request->shown.objectType.c_str(), request->agentType.c_str());
    }
    translateFilter(request->shown.objectType, filter, map, request);
    return std::nullopt;
} catch (const vorn::VORNException& error) {
    JPrintf("filter parsing (%s)...", error.what());
    return Rejection{LDAP_INVALID_SYNTAX, "vex dirgate: invalid search filter"};
}

std::optional<Rejection> prepareBase(std::string_view dn, SearchRequest* request) {
    // What the agent would read of it, up to the NUL, is another place.
    if (vorn::DN::holdsNul(dn)) return Rejection{LDAP_NO_SUCH_OBJECT, nullptr};
    request->base = dn;
    if (request->netgroups) {
        if (const auto rejection = prepareNetgroupBase(request)) return rejection;
    }
    request->shown.omitDn = request->base.empty() && request->scope == LDAP_SCOPE_BASE;
    return std::nullopt;
}

void prepareFetchByDn(SearchRequest* request) {
    if (!vorn::startsWithIgnoreCase(request->base, kFetchByDnMarker)) return;
    // One character more than the marker: the comma after it goes too.
    request->base.erase(0, sizeof kFetchByDnMarker);
    request->fetchByDn = true;
}

const AttributeList& prepareAttributes(const AttributeName* names, SearchRequest* request) {
    const AttributeList& list = translateAttributes(names, request->shown.objectType, request->agentType);
    request->shown.requested = list.attributes;
    request->shown.includeCn = list.includeCn;
    return list;
}

void prepareCaching(bool cacheEnabled, SearchRequest* request) {
    request->cacheable = cacheEnabled && attributesAreCacheable(request->shown.requested);
    if (cacheEnabled && !request->cacheable) {
        JPrintf("Requested attribute(s) is not supported by vexagent.");
    }
    // A search for DNs in the forest has the key of the plain search with the
    // same base, but other results: it stays out of the cache.
    if (request->fetchByDn) request->cacheable = false;
    // The key's text is in lower case: what finds nothing for one spelling must not
    // answer for another.
    if (request->caseCounts) request->cacheable = false;
    request->key = SearchCacheManager::listKey(request->filter, request->base, request->scope);
    if (request->key.size() > SearchCacheManager::kMaxKeyBytes) request->cacheable = false;
}

void prepareFetchByUid(SearchRequest* request) {
    if (!gFetchByDnUID || request->filter != "(objectClass=*)" || request->scope != LDAP_SCOPE_BASE ||
        !request->base.starts_with("uid=")) {
        return;
    }
    JPrintf("vex search Do fetchbydnuid.");
    request->shown.objectType = kPosixAccount;
    const std::size_t start = request->base.find('=') + 1;
    const std::size_t comma = request->base.find(',', start);
    const std::string uid = comma == std::string::npos ? "" : request->base.substr(start, comma - start);
    request->agentType = translate_name(gTranslationMap, kPosixAccount, "");
    const std::string attribute = translate_name(gTranslationMap, translation_key(kPosixAccount, "uid"), "");
    if (!uid.empty() && !request->agentType.empty() && !attribute.empty()) {
        request->filter =
            "(&(objectClass=" + request->agentType + ")(" + attribute + "=" + uidAsAssertion(uid) + "))";
    }
    JPrintf("vex search after fetchbydnuid transformation, filter = %s",
            filterForLog(request->filter).c_str());
    request->fetchByUidDone = true;
}

std::string domainEntryLdif(std::string_view suffix, std::string_view dn) {
    const std::string_view firstRdn = dn.substr(0, dn.find(','));
    const std::size_t equals = firstRdn.find('=');
    const std::string_view value = equals == std::string_view::npos ? firstRdn : firstRdn.substr(equals + 1);
    std::string ldif = "dn: ";
    ldif.append(suffix).append("\nobjectclass: domain\ndc: ").append(value).append("\n");
    return ldif;
}

std::vector<const char*> namesForAgent(const AttributeNames& names) {
    std::vector<const char*> array;
    array.reserve(names.size() + 1);
    for (const std::string& name : names) array.push_back(name.c_str());
    array.push_back(nullptr);
    return array;
}
