// SPDX-License-Identifier: Apache-2.0
#include "standard/entries.h"

#include <algorithm>
#include <utility>

#include "backend/base/settings.h"
#include "cache/heap.h"
#include "search/kept_entries.h"
#include "standard/filter_key.h"
#include "standard/membership.h"
#include "standard/names.h"
#include "standard/onlookers.h"
#include "standard/slapd_entry.h"
#include "standard/spellings.h"
#include "vorn/clock.h"
#include "vorn/settings.h"
#include "vorn/strings.h"

#include "backend/base/slapd.h"

namespace standard {
namespace {

Kinds& kinds() {
    static Kinds& theOnes = *new Kinds;
    return theOnes;
}

// What is kept with a cached object.
struct Kept {
    bool members;
    bool references;
    SharedEntry entry;
};

// Other zones may have netgroups of the same names: only those of the host's own are shown.
bool isOfAnotherZone(const Kind& kind, const AgentObject& object) {
    if (kind.sort != Sort::Netgroup || !gNetgroupUseRfc2307) return false;
    const std::string zone = "," + vorn::loadSetting(vorn::SETTING_ZONE_REALNAME);
    const std::string& dn = object.first(AD_OBJECT_DN_TEXT);
    return zone.size() == 1 || dn.size() < zone.size() ||
           !vorn::equalsIgnoreCase(std::string_view(dn).substr(dn.size() - zone.size()), zone);
}

void addValues(const Kind& kind, const char* name, std::vector<std::string> values, ShownEntry* shown) {
    if (values.empty()) return;
    for (const ShownAttribute& one : kind.attributes) {
        if (one.name == name) return shown->attributes.push_back({&one, std::move(values)});
    }
}

void learnSpelling(const berval& dn, const berval& normal) {
    spellings().learn({dn.bv_val, dn.bv_len}, {normal.bv_val, normal.bv_len});
}

// An entry's own name, and those in it: all that slapd may ask for next.
void learnSpellings(const Entry& entry) {
    learnSpelling(entry.e_name, entry.e_nname);
    for (const Attribute* one = entry.e_attrs; one != nullptr; one = one->a_next) {
        if (one->a_desc->ad_type->sat_syntax != slap_schema.si_syn_distinguishedName) continue;
        for (unsigned i = 0; i < one->a_numvals; ++i) learnSpelling(one->a_vals[i], one->a_nvals[i]);
    }
}

}  // namespace

// Where people's uid is not the account's name, groups are to call them as hosts do.
void useKinds(Kinds made) {
    kinds() = std::move(made);
    useView(namesAccounts(kinds()) ? VEX_VIEW_APPLICATIONS : VEX_VIEW_HOSTS);
}

const Kinds& usedKinds() {
    return kinds();
}

// What the client asks, in its own terms: a cached answer costs no question in the agent's.
// What begins it is no filter: these keys are apart from others.
std::string EntrySearch::key() const {
    // A longer one is not cached, and an open page keeps no more of it.
    constexpr std::size_t kMost = SearchCacheManager::kMaxKeyBytes;
    constexpr std::size_t kUsual = 256;
    std::string key = "=";
    key.reserve(kUsual);
    if (m_wanted.filter != nullptr) appendFilterKey(m_wanted.filter, kMost, &key);
    key.append(std::to_string(m_wanted.scope));
    key.append(m_wanted.ndn.bv_val, m_wanted.ndn.bv_len);
    key.resize(std::min(key.size(), kMost + 1));
    return key;
}

vexCode EntrySearch::open() {
    bool cached = false;
    const vexCode code = m_objects.begin(key(), &cached);
    return code != VEX_OK || cached ? code : ask();
}

vexCode EntrySearch::ask() {
    if (!makeFilter()) return kFilterRefused;
    if (m_filter->empty()) return VEX_OK;
    const std::string base(m_wanted.dn.bv_val, m_wanted.dn.bv_len);
    const vexCode code = m_objects.ask(placedQuestion(*m_filter, base, m_wanted.scope, kinds()));
    return code != VEX_OK || m_objects.hasBase() ? code : openElsewhere();
}

bool EntrySearch::makeFilter() {
    if (m_filter) return true;
    auto filter = questionOf(m_wanted.filter, kinds(), membershipResolver());
    if (filter) m_filter = std::move(*filter);
    return m_filter.has_value();
}

vexCode EntrySearch::openElsewhere() {
    m_hasLookedElsewhere = true;
    if (!makeFilter()) return kFilterRefused;
    vexCode code = VEX_OK;
    const std::string real = realDn({m_wanted.dn.bv_val, m_wanted.dn.bv_len}, kinds(), &code);
    if (code != VEX_OK || real.empty()) return code;
    const AgentQuestion question{*m_filter, real, m_wanted.scope};
    // Under the client's key stands by now that nothing was found, if the base exists.
    if (m_objects.hasBase()) return m_objects.open(question);
    bool cached = false;
    code = m_objects.begin(key(), &cached);
    return code != VEX_OK || cached ? code : m_objects.ask(question);
}

bool EntrySearch::resume(SharedHandle handle) {
    return m_objects.resume(key(), std::move(handle));
}

SharedEntry EntrySearch::next(vexCode* code) {
    FoundObject found;
    while ((*code = m_objects.next(&found)) == VEX_OK) {
        SharedEntry entry = entryOf(found, code);
        if (*code != VEX_OK) break;
        if (entry != nullptr && isWanted(found, entry.get())) return entry;
    }
    return nullptr;
}

SharedEntry EntrySearch::keptEntry(const FoundObject& found) const {
    if (found.kept == nullptr || m_wanted.extras.memberOf) return nullptr;
    const auto* kept = static_cast<const Kept*>(found.kept.get());
    const bool whole =
        (kept->members || !m_wanted.extras.members) && (kept->references || !m_references.areWanted());
    return whole ? kept->entry : nullptr;
}

SharedEntry EntrySearch::entryOf(const FoundObject& found, vexCode* code) {
    if (SharedEntry kept = keptEntry(found)) return kept;
    const AgentObject object(m_objects.session(), found.object.get());
    const Kind* kind = kindOf(kinds(), object);
    if (kind == nullptr || isOfAnotherZone(*kind, object)) return nullptr;
    auto shown = show(*kind, object);
    if (!shown) return nullptr;
    const bool references = m_references.areWanted() || !References::areIn(*shown);
    *code = addExtras(*kind, object, &*shown);
    if (*code != VEX_OK) return nullptr;
    SharedEntry entry = slapdEntry(*shown);
    if (entry != nullptr) learnSpellings(*entry);
    if (entry == nullptr || found.cachedAs == nullptr || m_wanted.extras.memberOf) return entry;
    const bool whole = m_wanted.extras.members || kind->sort != Sort::Group;
    SharedEntry copy = sharedCopy(*entry);
    m_objects.cache()->setAttachment(*found.cachedAs, found.serial,
                                     std::make_shared<const Kept>(Kept{whole, references, copy}),
                                     heapBytes(kSharedRecord + sizeof(Kept)) + sharedCopyBytes(*entry));
    return copy;
}

vexCode EntrySearch::addExtras(const Kind& kind, const AgentObject& object, ShownEntry* shown) {
    const berval& top = m_op->o_bd->be_suffix[0];
    const std::string suffix(top.bv_val, top.bv_len);
    std::vector<std::string> dns;
    vexCode code = VEX_OK;
    if (m_references.areWanted() && References::areIn(*shown)) code = m_references.show(shown);
    if (code == VEX_OK && wantsShadow(kind, *shown)) {
        if (!m_policy) code = readPolicy();
        if (code == VEX_OK) addShadow(kind, shadowOf(object, *m_policy, vorn::systemTime()), shown);
    }
    if (code != VEX_OK) return code;
    if (kind.sort == Sort::Group && m_wanted.extras.members) {
        code = memberDns(suffix, object, &dns);
        addValues(kind, "member", std::move(dns), shown);
    } else if (kind.sort == Sort::Person && m_wanted.extras.memberOf) {
        code = groupDns(suffix, object, &dns);
        addValues(kind, "memberOf", std::move(dns), shown);
    }
    return code;
}

// The object of the suffix is the domain's.
vexCode EntrySearch::readPolicy() {
    const berval& suffix = m_op->o_bd->be_suffix[0];
    ObjectSearch search;
    vexCode code = search.open({"(objectClass=*)", {suffix.bv_val, suffix.bv_len}, LDAP_SCOPE_BASE});
    m_policy.emplace();
    FoundObject found;
    while (code == VEX_OK && (code = search.next(&found)) == VEX_OK)
        m_policy = policyOf(AgentObject(search.session(), found.object.get()));
    if (code != VEX_END_OF_RESULTS) return code;
    search.finish();
    return VEX_OK;
}

// That of the list that is replayed, whose key is the search.
GuidList::Verdict* EntrySearch::verdictOn(const FoundObject& found) const {
    if (!m_wanted.lasting || found.cachedAs == nullptr) return nullptr;
    const GuidList& list = *m_objects.handle()->cache.guidList;
    return list.verdictAt(static_cast<std::size_t>(found.cachedAs - list.data()));
}

bool EntrySearch::maySearchAll(Entry* entry) {
    if (!m_maySearchAll)
        m_maySearchAll = m_wanted.filter == nullptr || allowSearch(m_op, entry, m_wanted.filter);
    return *m_maySearchAll;
}

// A verdict is on the very object that the cache has now, which its serial names.
bool EntrySearch::isWanted(const FoundObject& found, Entry* entry) {
    GuidList::Verdict* const verdict = verdictOn(found);
    if (verdict == nullptr || !maySearchAll(entry)) return isTrueFor(entry);
    const std::uint64_t known = verdict->load(std::memory_order_relaxed);
    if (known >> 1 == found.serial) return (known & 1) != 0;
    const bool wanted = isTrueFor(entry);
    verdict->store(found.serial << 1 | (wanted ? 1U : 0U), std::memory_order_relaxed);
    return wanted;
}

void EntrySearch::finish() {
    if (m_wanted.lasting) m_objects.makeVerdicts();
    m_objects.finish();
}

bool EntrySearch::isTrueFor(Entry* entry) const {
    if (!dnIsSuffixScope(&entry->e_nname, const_cast<berval*>(&m_wanted.ndn), m_wanted.scope)) return false;
    return m_wanted.filter == nullptr || test_filter(m_op, entry, m_wanted.filter) == LDAP_COMPARE_TRUE;
}

namespace {

// The one entry of a search that was opened, which is over then; *code becomes VEX_OK, or why
// it could not be told.
SharedEntry onlyEntry(EntrySearch* search, vexCode* code) {
    SharedEntry entry = search->next(code);
    while (entry != nullptr) {
        vexCode end = VEX_OK;
        if (search->next(&end) == nullptr) break;
    }
    if (*code == VEX_END_OF_RESULTS) *code = VEX_OK;
    search->finish();
    return entry;
}

}  // namespace

SharedEntry findEntry(Operation* op, const berval& dn, const berval& ndn, const Extras& extras,
                      vexCode* code) {
    const Wanted wanted{dn, ndn, LDAP_SCOPE_BASE, nullptr, extras};
    EntrySearch search(op, wanted);
    if ((*code = search.open()) != VEX_OK) return nullptr;
    SharedEntry entry = onlyEntry(&search, code);
    if (entry != nullptr || *code != VEX_OK || search.hasLookedElsewhere()) return entry;
    if ((*code = search.openElsewhere()) != VEX_OK) return nullptr;
    return onlyEntry(&search, code);
}

SharedEntry findMatched(Operation* op, berval dn, berval ndn) {
    while (ndn.bv_len != 0 && be_issuffix(op->o_bd, &ndn) == 0) {
        berval child = dn;
        berval nchild = ndn;
        dnParent(&child, &dn);
        dnParent(&nchild, &ndn);
        vexCode code = VEX_OK;
        const SharedEntry entry = findEntry(op, dn, ndn, {}, &code);
        if (code != VEX_OK) return nullptr;
        if (entry == nullptr) continue;
        const bool disclosed =
            access_allowed(op, entry.get(), slap_schema.si_ad_entry, nullptr, ACL_DISCLOSE, nullptr) != 0;
        return disclosed ? entry : nullptr;
    }
    return nullptr;
}

}  // namespace standard
