// One domain, or the forest's global catalog: its controllers and the connections
// to them.
#pragma once

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "agent/ad/net/controllers.h"
#include "agent/ad/net/link.h"
#include "agent/ad/net/srv.h"

namespace vexagent {

class Domain {
  public:
    enum class Kind { Domain, Catalog };

    // name is the domain's DNS name, or the forest's. forest is the DNS name of its forest
    // where that is known already. The context outlives it.
    Domain(const LinkContext& context, std::string name, Kind kind, std::string forest = {});

    // A connection for one thread, given back when the lease ends.
    class Lease {
      public:
        Lease(Domain& domain, std::unique_ptr<Link> link) : m_domain(&domain), m_link(std::move(link)) {}
        Lease(Lease&& other) noexcept
            : m_domain(other.m_domain), m_link(std::move(other.m_link)), m_long(other.m_long) {}
        Lease& operator=(Lease&&) = delete;
        ~Lease() {
            if (m_link) m_domain->giveBack(std::move(m_link), m_long, m_reusable);
        }
        // Whether there still is one: it may have been moved.
        explicit operator bool() const { return m_link != nullptr; }
        Link* operator->() const { return m_link.get(); }
        Link& operator*() const { return *m_link; }

        // The connection is not used by anybody else, because an answer is under way.
        void spoil() { m_reusable = false; }

        // Lasts longer than one request. False when there are too many of that kind.
        bool keep();

      private:
        Domain* m_domain;
        std::unique_ptr<Link> m_link;
        bool m_long = false;
        bool m_reusable = true;
    };

    // Does some work on a connection to a controller. When that is lost the work is
    // done again from its beginning with the next controller, while time is left.
    using Work = std::function<LdapStatus(Lease&)>;
    LdapStatus run(const Deadline& deadline, const Work& work);

    // The same for the searches whose answers are all wanted at once.
    LdapStatus search(const LdapSearch& search, const Deadline& deadline, std::vector<Entry>& entries);

    // What is asked once. Never null when the status is good.
    LdapStatus info(const Deadline& deadline, std::shared_ptr<const DomainInfo>& info);

    const LinkContext& context() const { return m_context; }
    // How many leases may be kept at a time.
    std::size_t mostLong() const { return m_context.options.connections * kLongPerConnection; }
    Controllers& controllers() { return m_controllers; }
    const std::string& name() const { return m_name; }
    Kind kind() const { return m_kind; }

    // Whether this is the password of the DN, by a bind on a connection of its own.
    // It is sent to one controller, once.
    Expected<Accepted, LdapFailure> tryPassword(const std::string& dn, const std::string& password,
                                                const Deadline& deadline);

    // Looks for the domain's controllers, anew; takes some seconds where DNS does
    // not answer.
    void locate();
    void locate(std::string& reason);

    // What is to be done from time to time, apart from requests: trying controllers
    // that have failed, closing what nobody uses, looking for controllers anew.
    void tend();

    // Whether somebody answers now: VEX_OK, or why not. Asks only when for a while
    // neither an answer has come nor the want of one has been told.
    LdapStatus health(const Deadline& deadline);

    // What it means that a status is lost which run did not see: the controller's
    // failure, which is noted, or that the request has used up its own time.
    LdapStatus blame(const Link& link, const Deadline& deadline, const LdapStatus& status);

    // Whether a controller answers a plain question at this moment; asks all of them at
    // the same time.
    bool answersNow();

    // How long one controller gets to take a connection while there are others, and
    // at most which part of the time that is left.
    static constexpr milliseconds kPatience{2000};
    static constexpr int kPatienceShare = 2;
    static constexpr std::size_t kLongPerConnection = 4;

  private:
    struct Idle {
        std::unique_ptr<Link> link;
        Moment since;
    };

    std::uint16_t port() const;
    std::vector<Controller> listed() const;
    bool find(std::vector<Controller>& controllers, std::string& reason);
    void take(const std::vector<SrvRecord>& records, int rank, std::vector<Controller>& controllers,
              std::string& reason);
    bool isOwnHost(const std::string& host);
    LdapStatus waitForControllers(const Deadline& deadline);
    bool acquire(const Deadline& deadline);
    void release();
    std::unique_ptr<Link> takeIdle(const Peer& peer, const Deadline& deadline);
    void dropIdle(const Peer& peer);
    LdapStatus runOnAll(const Deadline& deadline, const Work& work);
    // Whether there is somebody to turn to when a controller hangs.
    enum class Others { None, Some };
    LdapStatus runOn(const Peer& peer, const Deadline& open, const Deadline& deadline, const Work& work,
                     Others others);
    LdapStatus attempt(std::unique_ptr<Link> link, const Work& work, Others others);
    void noteLost(const LdapStatus& status);
    LdapStatus readInfo(const Deadline& deadline, DomainInfo& info);
    LdapStatus probe(const Peer& peer, const Deadline& deadline);
    bool stillThere(const Peer& peer, const Deadline& deadline);
    LdapStatus fault(const Peer& peer, const Deadline& until, const Deadline& deadline,
                     const LdapStatus& status);
    LdapStatus nobodyKnown(const std::string& reason) const;
    void giveBack(std::unique_ptr<Link> link, bool wasLong, bool reusable);

    const LinkContext& m_context;
    const std::string m_name;
    const Kind m_kind;
    const std::string m_forest;
    Controllers m_controllers;
    std::atomic<Moment> m_lastAnswer{Moment{}};

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::map<Peer, std::vector<Idle>> m_idle;  // guarded by m_mutex, as all below
    std::size_t m_running = 0;                 // calls of run
    std::size_t m_long = 0;                    // leases that outlive theirs
    bool m_located = false;                    // whether it has been tried
    Moment m_locateAgain{};
    std::string m_locateReason;
    std::set<std::string> m_strangers;  // hosts that DNS names, and that are not asked
    std::shared_ptr<const DomainInfo> m_info;
    Moment m_lostAt{};    // when nobody answered last
    LdapStatus m_lost{};  // and why
};

}  // namespace vexagent
