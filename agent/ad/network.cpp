// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/network.h"

namespace vexagent {
namespace {

class Entries final : public EntrySink {
  public:
    void restart() override { list.clear(); }
    void take(Entry&& entry) override { list.push_back(std::move(entry)); }

    std::vector<Entry> list;
};

}  // namespace

Expected<std::vector<Entry>, LdapFailure> readAll(Network& network, const Place& place,
                                                  const std::vector<LdapSearch>& searches,
                                                  const Deadline& deadline) {
    Entries entries;
    const auto end = network.search(place, searches, entries, deadline);
    if (!end) return vorn::unexpected(end.error());
    return std::move(entries.list);
}

Expected<std::vector<Entry>, LdapFailure> readOne(Network& network, const Place& place,
                                                  const LdapSearch& search, const Deadline& deadline) {
    Entries entries;
    const auto end = network.search(place, {search}, entries, deadline);
    if (!end) return vorn::unexpected(end.error());
    if (end->missing) return vorn::unexpected(*end->missing);
    return std::move(entries.list);
}

}  // namespace vexagent
