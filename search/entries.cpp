// SPDX-License-Identifier: Apache-2.0
#include "search/entries.h"

#include <utility>
#include <vector>

#include "backend/base/agent_turns.h"
#include "backend/base/log.h"
#include "vorn/dn.h"
#include "vorn/remembered.h"
#include "vorn/strings.h"

#include "backend/base/slapd.h"

namespace {

// slapd does not give back all that it took for a text which it refuses in the end, and
// the same object makes the same text with each search: so none is given to it twice.
constexpr std::size_t kMostRefused = std::size_t{8} << 20;
vorn::Remembered& refusedTexts() {
    static vorn::Remembered& theOne = *new vorn::Remembered(kMostRefused);
    return theOne;
}

// The mark's presence alone disqualifies an object, whatever its value.
bool isMarkedInvalid(vexSession* session, const vexObject* object) {
    int value = 0;
    return vexGetAttributeBool(session, object, VORN_NSSENTRY_INVALID, &value) == VEX_OK;
}

}  // namespace

EntryMaker::EntryMaker(const SearchRequest& request, SearchCacheManager* cache)
    : m_request(request),
      m_keptEntries(request.fetchByDn || JPrintfEnabled() ? nullptr : cache, request.shown) {}

EntryMaker::Result EntryMaker::make(vexSession* session, FoundObject* found, SharedEntry* entry,
                                    vexCode* code) const {
    *entry = m_keptEntries.find(*found);
    if (*entry == nullptr) {
        if (isMarkedInvalid(session, found->object.get())) return Result::Skipped;
        const Result converted = convert(session, found, entry, code);
        if (converted != Result::Made) return converted;
    }
    return isOtherThanBase(entry->get()) ? Result::Skipped : Result::Made;
}

EntryMaker::Result EntryMaker::convert(vexSession* session, FoundObject* found, SharedEntry* entry,
                                       vexCode* code) const {
    bool complained = false;
    std::string ldif = toLdif(session, found->object.get(), &complained);
    if (ldif.empty()) return Result::Skipped;
    if (m_request.fetchByDn) {
        const Result fetched = fetchByDn(session, &found->object, code);
        if (fetched != Result::Made) return fetched;
        if (isMarkedInvalid(session, found->object.get())) return Result::Skipped;
        ldif = toLdif(session, found->object.get(), &complained);
        if (ldif.empty()) return Result::Skipped;
    }
    if (!refusedTexts().has(ldif)) *entry = parse(ldif);
    if (*entry == nullptr) {
        refusedTexts().add(ldif);
        JPrintfLines("Skipping object, invalid ldif ", ldif);
        return Result::Skipped;
    }
    // An error is logged each time.
    if (!complained) m_keptEntries.keep(*found, entry->get());
    return Result::Made;
}

EntryMaker::Result EntryMaker::fetchByDn(vexSession* session, vex::UniqueObject* object,
                                         vexCode* code) const {
    vex::UniqueString dn;
    *code = vex::readAttribute(session, object->get(), AD_OBJECT_DN_TEXT, &dn);
    if (*code != VEX_OK) return Result::Unreadable;
    const std::string domain = vorn::DN::domainFromDN(dn.get());
    object->reset();
    JPrintf("Calling vexLdapFetch with domain = %s, dn = %s", domain.c_str(), dn.get());
    vexObject* whole = nullptr;
    const std::vector<const char*> names = namesForAgent(m_request.shown.requested);
    *code = inTurn([&] { return vexLdapFetch(session, domain.c_str(), dn.get(), names.data(), &whole); });
    if (*code != VEX_OK) return Result::NotFetched;
    object->reset(whole);
    return Result::Made;
}

std::string EntryMaker::toLdif(vexSession* session, const vexObject* object, bool* complained) const {
    std::string ldif = object_to_ldif(session, object, m_request.shown, complained);
    JPrintfLines("After translation: out_ldif = \n", ldif);
    return ldif;
}

SharedEntry EntryMaker::parse(std::string ldif) {
    Entry* const entry = str2entry(ldif.data());
    return entry == nullptr ? nullptr : SharedEntry(entry, entry_free);
}

void EntryMaker::forgetRefused() {
    refusedTexts().forget();
}

// A base search answers with the base itself, or with nothing; the rewritten
// filter of a uid base finds an object under another name on purpose.
bool EntryMaker::isOtherThanBase(const Entry* entry) const {
    if (m_request.scope != LDAP_SCOPE_BASE || m_request.fetchByUidDone) return false;
    if (entry->e_name.bv_len == 0) return false;
    return !vorn::equalsIgnoreCase({entry->e_name.bv_val, entry->e_name.bv_len}, m_request.base);
}
