// SPDX-License-Identifier: Apache-2.0
// Which domains there are: the joined one, those that it names itself, and its forest's
// global catalog; nothing else.
//
// What they are is learned from the joined domain, never from a request: a name that is
// none of theirs costs no packet, not even a question to DNS. With a service account
// they are those of the own forest; a domain that is trusted is asked with the machine's
// tickets only, since a password that is shown there would be theirs.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "agent/ad/known_domains.h"
#include "agent/ad/network.h"
#include "agent/ad/options.h"

namespace vexagent {

// The name of a domain that means the whole forest.
inline constexpr char kForest[] = "$";

// Safe for several threads.
class Domains {
  public:
    // Asks nothing yet. Both outlive it.
    Domains(Network& network, const AdOptions& options);
    // What is done from time to time ends.
    ~Domains();
    Domains(const Domains&) = delete;
    Domains& operator=(const Domains&) = delete;

    const Place& joined() const { return m_joined; }

    // The domain of that DNS name, in any case, "" being the joined one; nothing when the
    // joined domain names none of that name. VEX_UNAVAILABLE where it cannot be asked which
    // there are.
    Expected<std::optional<Place>, Result> named(const std::string& name, const Deadline& deadline);

    // The same where there must be one: VEX_UNAVAILABLE for a name that is nobody's.
    Expected<Place, Result> existing(const std::string& name, const Deadline& deadline);

    // The global catalog.
    Expected<Place, Result> catalog(const Deadline& deadline);

  private:
    using Names = std::shared_ptr<const KnownDomains>;
    Expected<Names, LdapFailure> names(const Deadline& deadline);
    Expected<Names, LdapFailure> learn(const Deadline& deadline);
    Expected<Done, LdapFailure> addTrusts(const std::string& root, KnownDomains& names,
                                          const Deadline& deadline);
    void refresh();

    Network& m_network;
    const AdOptions& m_options;
    const Place m_joined;

    std::mutex m_mutex;
    Names m_names;  // null before they are learned; guarded by m_mutex, as the next
    Moment m_learnAgain{};
};

}  // namespace vexagent
