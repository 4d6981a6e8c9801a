// SPDX-License-Identifier: Apache-2.0
// An Active Directory domain as a directory: a front of those who find its objects, check
// its people's passwords, and know which domains there are.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "agent/ad/domains.h"
#include "agent/ad/logins.h"
#include "agent/ad/network.h"
#include "agent/ad/options.h"
#include "agent/ad/password_changer.h"
#include "agent/ad/searches.h"
#include "agent/directory/directory.h"

namespace vexagent {

class AdDirectory : public Directory {
  public:
    // Asks nothing yet: a domain that is out of reach is found out by the requests. Throws
    // vorn::OwnFileError.
    // Without a changer, which outlives it, nobody's password is changed.
    AdDirectory(const AdOptions& options, std::unique_ptr<Network> network,
                PasswordChanger* changer = nullptr);

    bool isQuick(int scope, const std::string& filter) const override;
    Result search(const Query& query, Batch& first, std::unique_ptr<Cursor>& rest) override;
    Result fetch(const std::string& domain, const std::string& dn, const View& view, Object& object) override;
    Result lookup(const std::string& guid, const View& view, Object& object) override;
    void lookupAhead(const std::vector<std::string>& guids, const View& view, const Take& take) override;
    Verdict authenticate(const std::string& user, const std::string& password, LoginOptions options) override;
    Result changePassword(const std::string& user, const std::string& oldPassword,
                          const std::string& newPassword) override;
    Result supportedAttributes(std::vector<std::string>& names) override;
    Result health() override;

  private:
    const AdOptions m_options;
    const std::unique_ptr<Network> m_network;
    Domains m_domains;
    Searches m_searches;
    Logins m_logins;
    PasswordChanger* const m_changer;
};

}  // namespace vexagent
