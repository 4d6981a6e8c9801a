// SPDX-License-Identifier: Apache-2.0
#include "auth/credentials.h"

#include <cstring>
#include <utility>

#include "backend/base/log.h"
#include "backend/base/settings.h"

#include "backend/base/slapd.h"

CredManager* back_vex_creds = nullptr;

struct CredManager::Credential {
    vorn::Secret hash;
    vorn::Secret salt;
    std::time_t created;
};

namespace {

constexpr std::size_t kSaltBytes = 16;

// slapd's hashing leaves its working copy of the secret on the stack below its
// caller; this overwrites where that was.
__attribute__((noinline)) void wipeStackBelow() {
    char below[4096];
    vorn::wipe(below, sizeof below);
}

// Gives the hash that the library made, empty when it made none.
vorn::Secret takeHash(berval* hash) {
    const auto release = [](char* text) { ber_memfree(text); };
    const std::unique_ptr<char, decltype(release)> owner(hash->bv_val, release);
    if (!owner) return {};
    vorn::Secret result(std::string_view(hash->bv_val, hash->bv_len));
    vorn::wipe(hash->bv_val, hash->bv_len);
    return result;
}

// Random bytes up to the first zero one, for a salt is kept as text; so it may be
// shorter than it was asked for, even empty. False when there is no randomness.
bool makeSalt(vorn::Secret* salt) {
    salt->resize(kSaltBytes);
    if (lutil_entropy(reinterpret_cast<unsigned char*>(salt->data()), kSaltBytes) < 0) return false;
    salt->resize(strnlen(salt->data(), kSaltBytes));
    return true;
}

}  // namespace

vorn::Secret HashPassword(std::string_view password, const vorn::Secret& salt) {
    vorn::Secret whole(password);
    whole.append(salt.text());

    berval secret = {whole.size(), whole.data()};
    berval hash = {};
    const char* reason = nullptr;
    lutil_passwd_hash(&secret, "{SHA}", &hash, &reason);
    wipeStackBelow();
    if (hash.bv_val == nullptr) JError("Password hash generation failed");
    return takeHash(&hash);
}

CredManager::CredManager(vorn::Clock clock) : m_clock(clock) {}
CredManager::~CredManager() = default;

// Whether the DN's credential still lives, and is for this password.
bool CredManager::vouches(const Credential& credential, const char* dn, const char* password) const {
    if (m_clock() - credential.created >= gCredExpire) {
        JPrintf("vex bind : Cached credential(DN: %s) expires, skip this one", dn);
        return false;
    }
    return !credential.hash.empty() && HashPassword(password, credential.salt) == credential.hash;
}

std::time_t CredManager::doCacheAuth(const char* dn, const char* password) {
    const vorn::ReaderLock guard(m_lock);
    const auto bind = m_binds.find(std::string_view(dn));
    if (bind == m_binds.end()) return 0;
    const Credential& credential = *bind->second.credential;
    if (!vouches(credential, dn, password)) {
        JPrintf("vex bind : User '%s' validated against cached credential failed", dn);
        return 0;
    }
    JPrintf("vex bind : User '%s' authenticated, validated against cached credential.", dn);
    return credential.created;
}

std::uint64_t CredManager::clearings() {
    const vorn::ReaderLock guard(m_lock);
    return m_clearings;
}

void CredManager::addCreds(unsigned long connection, const std::string& dn, std::string_view password,
                           std::uint64_t asOf) {
    vorn::Secret salt;
    if (!makeSalt(&salt)) {
        JError("vex bind : Salt generation failed");
        return;
    }
    // Hashing is the expensive part: it is done before anybody has to wait.
    vorn::Secret hash = HashPassword(password, salt);
    Binds fresh;
    t_bind_info& made = fresh[dn];
    made.credential = std::make_unique<Credential>(Credential{std::move(hash), std::move(salt), m_clock()});
    made.holders = std::make_shared<Holders>();
    Order place{nullptr};

    const vorn::WriterLock guard(m_lock);
    if (m_clearings != asOf) return;
    Connection& user = pointed(connection, dn);
    count(user, install(&fresh, &place));
    while (m_binds.size() > static_cast<std::size_t>(gCredMax)) forget(m_binds.find(*m_order.front()));
    JPrintf("vex bind : Cache credential for '%s' creation success", dn.c_str());
}

// Takes over what was made for one DN. All memory that it takes has been allocated before,
// so nothing here can fail halfway. The caller destroys what is replaced, with the rest.
CredManager::t_bind_info& CredManager::install(Binds* fresh, Order* place) {
    const auto made = fresh->begin();
    const auto present = m_binds.find(made->first);
    if (present != m_binds.end()) {
        present->second.credential.swap(made->second.credential);
        return present->second;
    }
    const auto bind = m_binds.insert(fresh->extract(made)).position;
    place->front() = &bind->first;
    bind->second.place = place->begin();
    m_order.splice(m_order.end(), *place);
    return bind->second;
}

void CredManager::addConnID(unsigned long connection, std::string_view dn) {
    if (dn.empty()) return;
    const vorn::WriterLock guard(m_lock);
    Connection& user = pointed(connection, dn);
    if (const auto bind = m_binds.find(dn); bind != m_binds.end()) count(user, bind->second);
}

// The connection's record, with the DN as its last. When memory runs out, nothing has
// changed. Its binds with another DN stay with that for good: should it come back, there
// is one more for its end to take.
CredManager::Connection& CredManager::pointed(unsigned long connection, std::string_view dn) {
    Connection& user = m_connections.try_emplace(connection, dn).first->second;
    if (user.dn == dn) return user;
    user.dn = dn;
    if (user.holders != nullptr) user.holders->forGood = true;
    return user;
}

// Counts one bind of the connection, whose last DN is the credential's.
void CredManager::count(Connection& user, const t_bind_info& bind) {
    if (user.holders != bind.holders) {
        user.holders = bind.holders;
        user.binds = 0;
        ++bind.holders->connections;
    }
    ++user.binds;
    m_order.splice(m_order.end(), m_order, bind.place);
}

void CredManager::forget(Binds::iterator bind) {
    m_order.erase(bind->second.place);
    m_binds.erase(bind);
}

// A connection that bound several times takes back one bind, of its last DN: the others
// keep their credentials until the end.
void CredManager::delCreds(unsigned long connection) {
    const vorn::WriterLock guard(m_lock);
    const auto closed = m_connections.find(connection);
    if (closed == m_connections.end()) return;
    const Connection& user = closed->second;
    if (user.holders != nullptr) {
        Holders& holders = *user.holders;
        --holders.connections;
        if (user.binds > 1) holders.forGood = true;
        const auto bind = m_binds.find(user.dn);
        const bool isTheirs = bind != m_binds.end() && bind->second.holders == user.holders;
        if (isTheirs && holders.connections == 0 && !holders.forGood) forget(bind);
    }
    m_connections.erase(closed);
}

void CredManager::clearCreds() {
    const vorn::WriterLock guard(m_lock);
    ++m_clearings;
    m_binds.clear();
    m_order.clear();
    m_connections.clear();
}
