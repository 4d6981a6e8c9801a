// SPDX-License-Identifier: Apache-2.0
// The credential cache: who was validated with which password, for a while.
//
// Passwords are never kept, only salted {SHA} hashes. A credential lives until
// the last connection that used it closes. It confirms its password for gCredExpire
// seconds. Of more than gCredMax credentials the least recently used one goes.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "vorn/clock.h"
#include "vorn/lock.h"
#include "vorn/secret.h"

// "{SHA}" and the base64 text of the SHA-1 digest of the password followed by
// the salt; empty when hashing fails, which matches no password.
vorn::Secret HashPassword(std::string_view password, const vorn::Secret& salt);

// Safe for use by several threads; one instance a process.
class CredManager {
  public:
    explicit CredManager(vorn::Clock clock = vorn::systemTime);
    ~CredManager();
    CredManager(const CredManager&) = delete;
    CredManager& operator=(const CredManager&) = delete;

    // The creation time of the live credential that matches, or 0.
    std::time_t doCacheAuth(const char* dn, const char* password);

    // How often everything was forgotten so far.
    std::uint64_t clearings();

    // Keeps a credential that the agent has just validated, used by a connection; but not
    // if everything was forgotten since so many clearings: the password may be an old one.
    void addCreds(unsigned long connection, const std::string& dn, std::string_view password,
                  std::uint64_t asOf);
    void addCreds(unsigned long connection, const std::string& dn, std::string_view password) {
        addCreds(connection, dn, password, clearings());
    }

    // Records that a connection bound with a DN that was answered from the cache.
    void addConnID(unsigned long connection, std::string_view dn);

    // Forgets a closed connection, and the credential that it was the last to use.
    void delCreds(unsigned long connection);

    // Forgets everything. Cannot fail.
    void clearCreds();

  private:
    struct Credential;
    using Order = std::list<const std::string*>;

    // Who holds a DN's credential. Each bind is one element. A connection that closes takes
    // back one element, of the DN that it bound with last. The elements that are left keep
    // the credential. So the number of binds counts for each open connection. Elements that
    // no connection can take back any more count as one element that belongs to nobody.
    struct Holders {
        bool forGood = false;
        std::size_t connections = 0;  // whose last DN it is; of no interest once it is held for good
    };
    struct t_bind_info {
        std::unique_ptr<Credential> credential;  // never null
        std::shared_ptr<Holders> holders;        // never null
        Order::iterator place;                   // in m_order
    };
    struct Connection {
        explicit Connection(std::string_view name) : dn(name) {}
        std::string dn;                    // the one last bound with
        std::shared_ptr<Holders> holders;  // of the credential that its binds count for; may be null,
        std::uint64_t binds = 0;           // or of one that is gone
    };
    using Binds = std::map<std::string, t_bind_info, std::less<>>;
    using Connections = std::map<unsigned long, Connection>;

    bool vouches(const Credential& credential, const char* dn, const char* password) const;

    // All below are called with the write lock held.
    Connection& pointed(unsigned long connection, std::string_view dn);
    t_bind_info& install(Binds* fresh, Order* place);
    void count(Connection& connection, const t_bind_info& bind);
    void forget(Binds::iterator bind);

    const vorn::Clock m_clock;
    Binds m_binds;                  // by DN, as bytes; guarded by m_lock
    Connections m_connections;      // guarded by m_lock
    Order m_order;                  // the DNs of m_binds, the least recently used first; guarded by m_lock
    std::uint64_t m_clearings = 0;  // guarded by m_lock
    vorn::ReaderWriterLock m_lock;
};

// The process's credential cache, made when the back-end registers.
extern CredManager* back_vex_creds;
