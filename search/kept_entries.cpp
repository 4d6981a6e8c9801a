#include "search/kept_entries.h"

#include <memory>

#include "search/flat_entry.h"

#include "backend/slapd.h"

namespace {

struct KeptEntry {
    LdifRequest inputs;
    SharedEntry entry;
};

}  // namespace

SharedEntry KeptEntries::find(const FoundObject& found) const {
    if (m_cache == nullptr || found.kept == nullptr) return nullptr;
    const auto* kept = static_cast<const KeptEntry*>(found.kept.get());
    return kept->inputs == m_inputs ? kept->entry : nullptr;
}

void KeptEntries::keep(const FoundObject& found, Entry* entry) const {
    if (m_cache == nullptr || found.cachedAs == nullptr) return;
    // slapd notes an entry's special classes in it at the first question for one.
    // Asked here, no thread writes into the entry once others may read it.
    static_cast<void>(is_entry_referral(entry));
    m_cache->setAttachment(*found.cachedAs, found.serial,
                           std::make_shared<const KeptEntry>(m_inputs, flatCopy(*entry)));
}
