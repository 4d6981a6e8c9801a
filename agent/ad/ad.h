// An Active Directory domain, asked over the network.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "agent/ad/auth_cache.h"
#include "agent/ad/members.h"
#include "agent/ad/names.h"
#include "agent/ad/net/forest.h"
#include "agent/ad/net/tickets.h"
#include "agent/ad/net/watchdog.h"
#include "agent/ad/options.h"
#include "agent/ad/schema.h"
#include "agent/ad/search.h"
#include "agent/directory/directory.h"

namespace vexagent {

class AdDirectory : public Directory {
  public:
    // Asks nothing yet: a domain that is out of reach is found out by the requests.
    // Changes this process's environment (see Tickets), so no other thread runs yet.
    // Throws vorn::OwnFileError.
    explicit AdDirectory(const AdOptions& options);

    bool isQuick(int scope, const std::string& filter) const override;
    Result search(const Query& query, Batch& first, std::unique_ptr<Cursor>& rest) override;
    Result fetch(const std::string& domain, const std::string& dn, const View& view, Object& object) override;
    Result lookup(const std::string& guid, const View& view, Object& object) override;
    Verdict authenticate(const std::string& user, const std::string& password, LoginOptions options) override;
    Result supportedAttributes(std::vector<std::string>& names) override;
    Result health() override;

  private:
    Deadline deadline() const { return within(m_options.timeout); }
    Result domainOf(const std::string& name, const std::string& dn, const Deadline& deadline,
                    Domain*& domain);
    Result placeOf(const std::string& name, const std::string& dn, const Deadline& deadline, Domain*& domain);
    Result catalog(const Deadline& deadline, Domain*& domain);
    Result idsOf(Domain& domain, const Deadline& deadline, std::shared_ptr<const Ids>& ids);
    Result prepare(const Query& query, Domain& domain, Domain& members, const Deadline& deadline,
                   AdPlan& plan, bool& nothing);
    Result findBase(const Query& query, Domain& domain, const Deadline& deadline, AdPlan& plan);
    Result readBase(Domain& domain, const Deadline& deadline, AdPlan& plan);
    Result prepareOne(Domain& domain, const View& view, const Deadline& deadline, AdPlan& plan);
    Result showOne(Domain& domain, std::vector<Entry> entries, const AdPlan& plan, const Deadline& deadline,
                   Object& object);
    AdSource source(Domain& domain);

    // One log-in, and what is found out about it.
    struct Login {
        const std::string& user;
        const std::string& password;
        Domain* domain = nullptr;  // that is asked
        std::string account{};     // the GUID's text
    };
    bool isJoined(const std::string& user) const;
    Verdict askDomain(Login& login);
    Result askInVain(const Login& login, const Deadline& deadline, const Result& refusal);
    Verdict checkAccount(const Login& login, const Entry& account, const Deadline& deadline);
    std::optional<Verdict> askMemory(const Login& login);
    void learn(const Login& login, const Verdict& verdict);

    const AdOptions m_options;
    Watchdog m_watchdog;
    std::unique_ptr<Tickets> m_tickets;
    const LinkContext m_context;
    std::unique_ptr<AuthCache> m_memory;
    AdMemberships m_memberships;

    Forest m_forest;
    Domain& m_joined;

    AdSchema m_schema;
};

}  // namespace vexagent
