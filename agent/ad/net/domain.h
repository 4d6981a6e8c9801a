// SPDX-License-Identifier: Apache-2.0
// One domain, or the forest's global catalog: which controller is asked, for how long, and
// what it means that one does not answer.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "agent/ad/net/context.h"
#include "agent/ad/net/controllers.h"
#include "agent/ad/net/link_pool.h"
#include "agent/ad/net/locator.h"

namespace vexagent {

// Safe for several threads.
class Domain {
  public:
    // The context outlives it.
    Domain(const NetContext& context, Place place);
    Domain(const Domain&) = delete;
    Domain& operator=(const Domain&) = delete;

    using Lease = LinkPool::Lease;

    // Does some work on a connection to a controller. When that is lost the work is
    // done again from its beginning with the next controller, while time is left.
    using Work = std::function<Linked<Done>(Lease&)>;
    Linked<Done> run(const Deadline& deadline, const Work& work);

    // What is asked once. Never null.
    Linked<std::shared_ptr<const DomainInfo>> info(const Deadline& deadline);

    // Whether this is the password of the DN, by a bind on a connection of its own.
    // It is sent to one controller, once.
    Expected<Accepted, LdapFailure> tryPassword(const std::string& dn, const std::string& password,
                                                const Deadline& deadline);

    // Asks one controller, once, on a connection of its own, on which nobody has introduced
    // himself.
    using Question = std::function<Expected<Done, LdapFailure>(Link&)>;
    Expected<Done, LdapFailure> askOne(const Deadline& deadline, const Question& ask);

    // What is to be done from time to time, apart from requests: trying controllers
    // that have failed, closing what nobody uses, looking for controllers anew.
    void tend();

    // Whether somebody answers now. Asks only when for a while neither an answer has come
    // nor the want of one has been told.
    Linked<Done> health(const Deadline& deadline);

    // Whether a controller answers a plain question at this moment; asks all of them at
    // the same time.
    bool answersNow(const Deadline& deadline);

    // What it means that a connection is lost which run did not see: the controller's
    // failure, which is noted, or that the request has used up its own time.
    LinkFailure blame(const Link& link, const Deadline& deadline, const LinkFailure& failure);

    const NetContext& context() const { return m_context; }
    const std::string& name() const { return m_place.name; }
    Controllers& controllers() { return m_controllers; }
    Locator& locator() { return m_locator; }
    std::size_t mostLong() const { return m_pool.mostLong(); }

  private:
    // One controller's part of a request.
    struct Attempt {
        const Peer& peer;
        Deadline open;   // for taking a connection
        Deadline whole;  // for everything
        bool last;       // there is nobody else to turn to
        const Work& work;
    };
    Linked<Done> runOnAll(const Deadline& deadline, const Work& work);
    Linked<Done> runOn(const Attempt& attempt);
    Linked<Done> openAndWork(const Attempt& attempt, const Deadline& open);
    Linked<Done> workOn(std::unique_ptr<Link> link, const Attempt& attempt);

    Linked<Done> probe(const Peer& peer, const Deadline& deadline);
    bool stillThere(const Peer& peer, const Deadline& deadline);
    LinkFailure fault(const Peer& peer, const Deadline& until, const Deadline& deadline,
                      const LinkFailure& failure);
    void noteAnswer(const Peer& peer);
    void noteLost(const LinkFailure& failure);
    Moment now() const { return m_context.clock.now(); }

    Linked<DomainInfo> readInfo(const Deadline& deadline);
    Linked<std::vector<Entry>> read(const LdapSearch& search, const Deadline& deadline);

    const NetContext& m_context;
    const Place m_place;
    Controllers m_controllers;
    Locator m_locator;
    LinkPool m_pool;
    std::atomic<Moment> m_lastAnswer{Moment{}};

    std::mutex m_mutex;
    std::shared_ptr<const DomainInfo> m_info;  // guarded by m_mutex, as all below
    Moment m_lostAt{};                         // when nobody answered last
    std::optional<LinkFailure> m_lost;         // and why
};

}  // namespace vexagent
