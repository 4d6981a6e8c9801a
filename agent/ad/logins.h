// SPDX-License-Identifier: Apache-2.0
// Who logs in to a domain: from a name to its account to a verdict.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "agent/ad/auth_cache.h"
#include "agent/ad/domains.h"
#include "agent/ad/names.h"
#include "agent/ad/password_changer.h"
#include "agent/directory/directory.h"

namespace vexagent {

// Safe for several threads. A request has the time of the settings, from its beginning on.
class Logins {
  public:
    // All of it outlives it. Throws AuthCacheError.
    Logins(Network& network, const AdOptions& options, Domains& domains);

    // As Directory says it. One request is one attempt: a password is shown once.
    Verdict authenticate(const std::string& user, const std::string& password, LoginOptions options);

    // As Directory says it. The old password is checked first, as a log-in's. What the agent
    // remembers of the account is forgotten, even where nobody knows whether it was changed.
    Result changePassword(PasswordChanger& changer, const std::string& user, const std::string& oldPassword,
                          const std::string& newPassword);

    // Whether somebody could be let in although nobody can be asked.
    bool remembersAnybody() const { return m_memory && m_memory->hasAnswers(); }

  private:
    // One log-in, and what is found out about it.
    struct Login {
        const std::string& user;
        const std::string& password;
        std::optional<Place> domain{};  // that is asked
        std::string account{};          // the GUID's text
        std::string name{};             // the account's sAMAccountName
        std::string dn{};               // and its DN
    };
    Deadline within(milliseconds time) const { return {m_network.clock(), time}; }
    bool isOfJoined(const std::string& user) const;
    bool isKnownToBeDown() const;
    Verdict askDomain(Login& login);
    Verdict askAs(Login& login, NamedEntries found, const Deadline& deadline);
    Verdict askInVain(const Login& login, const Deadline& deadline, const Result& refusal);
    Verdict checkAccount(const Login& login, const Entry& account, const Deadline& deadline);
    std::optional<Verdict> askMemory(const Login& login);
    void learn(const Login& login, const Verdict& verdict);

    Network& m_network;
    const AdOptions& m_options;
    Domains& m_domains;
    const std::unique_ptr<AuthCache> m_memory;  // null where nothing is remembered
};

}  // namespace vexagent
