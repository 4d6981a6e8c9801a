// SPDX-License-Identifier: Apache-2.0
// Ids for accounts that have no numbers of their own, made from their SIDs.
//
// The id of a SID whose last sub-authority is RID is
//     first + slice * slice_size + RID
// where slice is MurmurHash2 (seed 0xdeadbeef) of the domain's SID in text form
// ("S-1-5-21-...", without the RID), modulo the number of slices. A RID of a slice's
// size or more has no id. So every host that has the same settings makes the same
// ids, and they never change; two domains of a forest may share a slice, which the
// agent's check reports.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "agent/ad/options.h"
#include "agent/directory/unix_ids.h"

namespace vexagent {

// The SID of a domain's account with this RID; empty where the domain's is no SID.
std::string accountSid(std::string_view domainSid, std::uint32_t rid);

class Ids {
  public:
    // domainSid: bytes; empty as long as it is not known, and then nothing has an id.
    Ids(const IdOptions& options, std::string domainSid);

    bool enabled() const { return m_options.fromSid && m_first.has_value(); }

    // The id of a SID of this domain.
    std::optional<std::uint32_t> idOf(std::string_view sid) const;

    // The SID that an id was made from; empty when it was made from none.
    std::string sidOf(std::uint32_t id) const;

    // The numbers that hosts are shown.
    UnixIds allowed() const { return UnixIds(m_options.least); }

    // The home folder of a login name.
    std::string homeOf(const std::string& name) const;

    // The first id of this domain's slice.
    std::optional<std::uint32_t> first() const { return m_first; }
    // The SID of this domain's account with the RID.
    std::string sidWith(std::uint32_t rid) const { return accountSid(m_domainSid, rid); }

  private:
    const IdOptions m_options;
    const std::string m_domainSid;
    std::optional<std::uint32_t> m_first;
};

}  // namespace vexagent
