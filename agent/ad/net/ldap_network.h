// SPDX-License-Identifier: Apache-2.0
// The network that there is: controllers, asked by LDAP and Kerberos.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "agent/ad/net/domain.h"
#include "agent/ad/net/housekeeper.h"
#include "agent/ad/net/ldap_connector.h"
#include "agent/ad/network.h"
#include "agent/ad/password_changer.h"

namespace vexagent {

class LdapNetwork : public Network, public PasswordChanger {
  public:
    // Asks nothing yet: a domain that is out of reach is found out by the requests.
    // Changes this process's environment (see Tickets), so no other thread runs yet.
    // Throws vorn::OwnFileError for a password that others may read.
    explicit LdapNetwork(const AdOptions& options,
                         const vorn::SteadyClock& clock = vorn::systemSteadyClock());

    Expected<SearchEnd, LdapFailure> search(const Place& place, const std::vector<LdapSearch>& searches,
                                            EntrySink& sink, const Deadline& deadline) override;
    Expected<OpenedSearch, LdapFailure> open(const Place& place, LongSearch search,
                                             const Deadline& deadline) override;
    Expected<std::shared_ptr<const DomainInfo>, LdapFailure> describe(const Place& place,
                                                                      const Deadline& deadline) override;
    Expected<Accepted, LdapFailure> bind(const Place& place, const std::string& dn,
                                         const std::string& password, const Deadline& deadline) override;
    Expected<Accepted, KdcFailure> askKdc(const Place& place, const std::string& account,
                                          const std::string& password, const Deadline& deadline) override;
    // In the way that passwords are checked: by Kerberos, or over TLS.
    Expected<Done, ChangeFailure> changePassword(const Place& place, const PasswordChange& change,
                                                 const Deadline& deadline) override;
    Expected<Done, LdapFailure> probe(const Place& place, Look look, const Deadline& deadline) override;
    void tend(std::function<void()> work) override;
    const vorn::SteadyClock& clock() const override { return m_context.clock; }

  private:
    Domain& at(const Place& place);
    Domain* known(const std::string& key);
    Controllers* controllersOf(const std::string& realm);
    void tendAll();

    const AdOptions m_options;
    Watchdog m_watchdog;
    const std::unique_ptr<Tickets> m_tickets;  // null without GSSAPI
    LdapConnector m_connector;
    PageRule m_pages;
    const NetContext m_context;

    std::mutex m_mutex;
    std::map<std::string, std::unique_ptr<Domain>> m_domains;  // guarded by m_mutex; never taken out

    std::mutex m_workMutex;  // held while m_work runs
    std::function<void()> m_work;

    std::optional<Housekeeper> m_house;
};

}  // namespace vexagent
