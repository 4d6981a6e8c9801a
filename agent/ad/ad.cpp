// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/ad.h"

#include <algorithm>

#include "agent/directory/passwords.h"

namespace vexagent {
namespace {

constexpr milliseconds kHealthTime{3000};

// An answer in the manner of Directory.
template <class T>
Result given(Expected<T, Result> answer, T& place) {
    if (!answer) return std::move(answer.error());
    place = std::move(*answer);
    return {};
}

}  // namespace

AdDirectory::AdDirectory(const AdOptions& options, std::unique_ptr<Network> network, PasswordChanger* changer)
    : m_options(options),
      m_network(std::move(network)),
      m_domains(*m_network, m_options),
      m_searches(*m_network, m_options, m_domains),
      m_logins(*m_network, m_options, m_domains),
      m_changer(changer) {}

bool AdDirectory::isQuick(int scope, const std::string& filter) const {
    return Searches::isQuick(scope, filter);
}

Result AdDirectory::search(const Query& query, Batch& first, std::unique_ptr<Cursor>& rest) {
    rest.reset();
    auto found = m_searches.search(query);
    if (!found) return std::move(found.error());
    first = std::move(found->first);
    rest = std::move(found->rest);
    return {};
}

Result AdDirectory::fetch(const std::string& domain, const std::string& dn, const View& view,
                          Object& object) {
    return given(m_searches.fetch(domain, dn, view), object);
}

Result AdDirectory::lookup(const std::string& guid, const View& view, Object& object) {
    return given(m_searches.lookup(guid, view), object);
}

void AdDirectory::lookupAhead(const std::vector<std::string>& guids, const View& view, const Take& take) {
    for (Object& object : m_searches.lookupAhead(guids, view))
        if (!take(std::move(object))) return;
}

Verdict AdDirectory::authenticate(const std::string& user, const std::string& password,
                                  LoginOptions options) {
    return m_logins.authenticate(user, password, options);
}

Result AdDirectory::changePassword(const std::string& user, const std::string& oldPassword,
                                   const std::string& newPassword) {
    if (m_changer == nullptr) return noPasswordChange("this agent changes no passwords");
    return m_logins.changePassword(*m_changer, user, oldPassword, newPassword);
}

Result AdDirectory::supportedAttributes(std::vector<std::string>& names) {
    return given(m_searches.supportedAttributes(), names);
}

Result AdDirectory::health() {
    const Deadline deadline(m_network->clock(), std::min(kHealthTime, m_options.timeout));
    const auto answered = m_network->probe(m_domains.joined(), Look::IfLongAgo, deadline);
    if (answered || m_logins.remembersAnybody()) return {};
    Result result = resultOf(answered.error());
    result.code = VEX_UNAVAILABLE;
    return result;
}

}  // namespace vexagent
