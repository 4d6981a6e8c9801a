// An Active Directory domain, asked over the network.
#pragma once

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "agent/ad/auth_cache.h"
#include "agent/ad/domain.h"
#include "agent/ad/members.h"
#include "agent/ad/names.h"
#include "agent/ad/options.h"
#include "agent/ad/search.h"
#include "agent/ad/tickets.h"
#include "agent/ad/watchdog.h"
#include "agent/directory.h"

namespace vexagent {

class AdDirectory : public Directory {
  public:
    // Asks nothing yet: a domain that is out of reach is found out by the requests.
    // Changes this process's environment (see Tickets), so no other thread runs yet.
    // Throws AuthCacheError.
    explicit AdDirectory(const AdOptions& options);
    ~AdDirectory() override;

    bool isQuick(const Query& query) const override;
    Result search(const Query& query, Batch& first, std::unique_ptr<Cursor>& rest) override;
    Result fetch(const std::string& domain, const std::string& dn, const View& view, Object& object) override;
    Result lookup(const std::string& guid, const View& view, Object& object) override;
    Result authenticate(const std::string& user, const std::string& password, LoginOptions options) override;
    Result supportedAttributes(std::vector<std::string>& names) override;
    Result health() override;

  private:
    Deadline deadline() const { return Deadline::in(m_options.timeout); }
    Domain* find(const std::string& name);
    Domain* add(const std::string& name, Domain::Kind kind);
    Result domainOf(const std::string& name, const std::string& dn, Domain*& domain);
    Result catalog(const Deadline& deadline, Domain*& domain);
    Result idsOf(Domain& domain, const Deadline& deadline, std::shared_ptr<const Ids>& ids);
    Result prepare(const Query& query, Domain& domain, Domain& members, const Deadline& deadline,
                   AdPlan& plan, bool& nothing);
    Result findBase(const Query& query, Domain& domain, const Deadline& deadline, AdPlan& plan);
    Result readBase(Domain& domain, const Deadline& deadline, AdPlan& plan);
    Result showOne(Domain& domain, std::vector<Entry> entries, const View& view, const Deadline& deadline,
                   Object& object);
    AdSource source(Domain& domain);

    Result askDomain(const std::string& user, const std::string& password);
    Result checkAccount(Domain& domain, const Entry& account, const std::string& password,
                        const Deadline& deadline);
    bool askMemory(const std::string& user, const std::string& password, Result& result);
    void keepHouse();

    const AdOptions m_options;
    Watchdog m_watchdog;
    std::unique_ptr<Tickets> m_tickets;
    const LinkContext m_context;
    std::unique_ptr<AuthCache> m_memory;
    AdMemberships m_memberships;

    // What adding a domain needs is there before the first one is added.
    std::mutex m_houseMutex;
    std::condition_variable m_wakeHouse;
    bool m_stopping = false;  // guarded by m_houseMutex, as the next
    bool m_work = false;

    std::mutex m_mutex;
    std::map<std::string, std::unique_ptr<Domain>> m_domains;  // by lower-case name; guarded by m_mutex
    Domain& m_joined;

    std::mutex m_namesMutex;
    std::vector<std::string> m_names;  // guarded by m_namesMutex, as the next
    Moment m_namesUntil{};

    std::thread m_house;
};

}  // namespace vexagent
