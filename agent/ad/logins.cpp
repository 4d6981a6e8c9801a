// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/logins.h"

#include <random>

#include "agent/ad/login.h"
#include "agent/directory/identifiers.h"
#include "agent/directory/log.h"
#include "agent/directory/passwords.h"
#include "vorn/dn.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

constexpr milliseconds kLookTime{1000};  // for all controllers, to see whether one is there

// Nobody's password was looked at.
Result ambiguous(const NamedEntries& found) {
    std::string dns;
    for (const std::vector<Entry>* entries : {&found.real, &found.rewritten})
        for (const Entry& entry : *entries) dns.append(dns.empty() ? "" : "; ").append(entry.dn);
    return refusedUnseen("the name means more than one object: " + dns);
}

// Somebody whom no directory holds.
Entry nobody(const Place& domain) {
    std::random_device random;
    std::string name = "nobody";
    for (int i = 0; i < 4; ++i) name += "-" + std::to_string(random());
    return {"CN=" + name + "," + vorn::DN::dnFromDomain(domain.name), {{"sAMAccountName", {name}}}};
}

// The domain whose DN it is; "" for another name.
std::string domainIn(const std::string& user) {
    return vorn::DN::isDN(user) ? vorn::DN::domainFromDN(user) : std::string();
}

std::unique_ptr<AuthCache> memoryFor(const AdOptions& options) {
    if (!options.authCache.enabled) return nullptr;
    return std::make_unique<AuthCache>(options.authCache, options.clock);
}

}  // namespace

Logins::Logins(Network& network, const AdOptions& options, Domains& domains)
    : m_network(network), m_options(options), m_domains(domains), m_memory(memoryFor(options)) {}

bool Logins::isOfJoined(const std::string& user) const {
    return !vorn::DN::isDN(user) || vorn::equalsIgnoreCase(vorn::DN::domainFromDN(user), m_options.domain);
}

bool Logins::isKnownToBeDown() const {
    return !m_network.probe(m_domains.joined(), Look::AtWhatIsKnown, within(kLookTime));
}

Verdict Logins::authenticate(const std::string& user, const std::string& password, LoginOptions options) {
    if (user.empty()) return noSuchUser();
    if (password.empty() || password.find('\0') != std::string::npos) return wrongPassword();
    const bool mayRemember = m_memory && (options.preferCached || options.allowCached);
    Login login{user, password, m_domains.joined()};
    // Nobody waits for a domain that was out of reach a moment ago, and is still.
    if (mayRemember && options.preferCached && isOfJoined(user) && isKnownToBeDown())
        if (const auto remembered = askMemory(login)) return *remembered;
    const Verdict verdict = askDomain(login);
    if (verdict.code() == VEX_UNAVAILABLE && mayRemember && login.domain)
        if (const auto remembered = askMemory(login)) return *remembered;
    if (m_memory) learn(login, verdict);
    return verdict;
}

// ------------------------------------------------------------------ the domain

Verdict Logins::askDomain(Login& login) {
    const Deadline end = within(m_options.timeout);
    auto domain = m_domains.named(domainIn(login.user), end);
    if (!domain) return domain.error();
    login.domain = std::move(*domain);
    if (!login.domain) return noSuchUser();
    const NameFinder finder(m_network, *login.domain, m_options, kLoginAttributes, end);
    auto found = finder.byLoginName(login.user);
    return found ? askAs(login, std::move(*found), end) : Verdict(resultOf(found.error()));
}

Verdict Logins::askAs(Login& login, NamedEntries found, const Deadline& deadline) {
    if (found.count() > 1) return askInVain(login, deadline, ambiguous(found));
    const Entry* account = found.only();
    if (account == nullptr || account->first("sAMAccountName").empty())
        return askInVain(login, deadline, noSuchUser());
    login.account = guidText(account->first("objectGUID"));
    login.name = account->first("sAMAccountName");
    login.dn = account->dn;
    const Verdict verdict = checkAccount(login, *account, deadline);
    if (!verdict.accepted()) return verdict;
    if (const std::optional<Result> refusal = unreadableState(*account)) return *refusal;
    return verdict;
}

// Asks what a wrong password would be asked: neither the time that it takes nor what
// fails on the way tells a client whom the domain knows.
Verdict Logins::askInVain(const Login& login, const Deadline& deadline, const Result& refusal) {
    const std::string password(login.password.size(), 'x');
    const Verdict verdict =
        checkAccount({login.user, password, login.domain}, nobody(*login.domain), deadline);
    const bool told = verdict.accepted() || isRefusal(verdict.code());
    return told ? Verdict(refusal) : verdict;
}

Verdict Logins::checkAccount(const Login& login, const Entry& account, const Deadline& deadline) {
    if (m_options.transport != Transport::Gssapi) {
        const auto accepted = m_network.bind(*login.domain, account.dn, login.password, deadline);
        return accepted ? Verdict(*accepted) : loginFailure(accepted.error());
    }
    const auto accepted = m_network.askKdc(*login.domain, std::string(account.first("sAMAccountName")),
                                           login.password, deadline);
    return accepted ? Verdict(*accepted) : loginFailure(accepted.error(), account, m_options.clock());
}

Result Logins::changePassword(PasswordChanger& changer, const std::string& user,
                              const std::string& oldPassword, const std::string& newPassword) {
    const Deadline end = within(m_options.timeout);
    if (user.empty()) return noSuchUser();
    if (oldPassword.empty() || oldPassword.find('\0') != std::string::npos) return wrongPassword();
    if (newPassword.empty() || newPassword.find('\0') != std::string::npos)
        return badNewPassword("the new password is empty or holds a NUL");
    Login login{user, oldPassword, m_domains.joined()};
    if (const Verdict verdict = askDomain(login); !verdict.accepted()) {
        if (m_memory) learn(login, verdict);
        return verdict.result();
    }
    const auto changed =
        changer.changePassword(*login.domain, {login.name, login.dn, oldPassword, newPassword}, end);
    if (m_memory) m_memory->forget(login.user, login.account);
    return changed ? Result() : changeFailure(changed.error());
}

// ------------------------------------------------------------------ the memory

// What the domain says itself is not asked of the memory, however late it says it.
std::optional<Verdict> Logins::askMemory(const Login& login) {
    if (m_network.probe(*login.domain, Look::AtEverybody, within(kLookTime))) return std::nullopt;
    std::optional<Verdict> verdict = m_memory->check(login.user, login.password);
    if (verdict && verdict->accepted())
        AGENT_LOG(vorn::Logger::kInfo, "password of \"%s\" checked against an earlier check",
                  vorn::printable(login.user).c_str());
    return verdict;
}

void Logins::learn(const Login& login, const Verdict& verdict) {
    if (verdict.accepted()) m_memory->remember(login.user, login.account, login.password);
    if (isRefusal(verdict.code())) m_memory->forget(login.user, login.account);
}

}  // namespace vexagent
