// SPDX-License-Identifier: Apache-2.0
#include "search/kept_entries.h"

#include <memory>

#include "cache/heap.h"
#include "search/flat_entry.h"

#include "backend/base/slapd.h"

namespace {

struct KeptEntry {
    LdifRequest inputs;
    SharedEntry entry;
};

// slapd notes an entry's special classes in it at the first question for one. Noted
// here, no thread writes into the entry once others may read it. Where the client did
// not ask for the classes slapd is not asked: it would write a line to syslog.
void noteSpecialClasses(Entry& entry) {
    const Attribute* one = entry.e_attrs;
    while (one != nullptr && one->a_desc != slap_schema.si_ad_objectClass) one = one->a_next;
    if (one != nullptr)
        static_cast<void>(is_entry_referral(&entry));
    else
        entry.e_ocflags |= SLAP_OC__END;
}

// What an entry kept with its inputs takes of the heap. Names that others share count as
// if they were its own: it may be the last to have them.
std::size_t bytesOf(const LdifRequest& inputs, const Entry& entry) {
    std::size_t bytes = heapBytes(kSharedRecord + sizeof(KeptEntry)) + sharedCopyBytes(entry) +
                        heapBytes(inputs.objectType) +
                        heapBytes(kSharedRecord + sizeof(std::vector<std::string>)) +
                        heapBytes(inputs.requested.size() * sizeof(std::string));
    for (const std::string& name : inputs.requested) bytes += heapBytes(name);
    return bytes;
}

}  // namespace

SharedEntry sharedCopy(Entry& entry) {
    noteSpecialClasses(entry);
    return flatCopy(entry);
}

std::size_t sharedCopyBytes(const Entry& entry) {
    return heapBytes(kSharedRecord + flatSize(entry));
}

SharedEntry KeptEntries::find(const FoundObject& found) const {
    if (m_cache == nullptr || found.kept == nullptr) return nullptr;
    const auto* kept = static_cast<const KeptEntry*>(found.kept.get());
    return kept->inputs == m_inputs ? kept->entry : nullptr;
}

void KeptEntries::keep(const FoundObject& found, Entry* entry) const {
    if (m_cache == nullptr || found.cachedAs == nullptr) return;
    m_cache->setAttachment(*found.cachedAs, found.serial,
                           std::make_shared<const KeptEntry>(KeptEntry{m_inputs, sharedCopy(*entry)}),
                           bytesOf(m_inputs, *entry));
}
