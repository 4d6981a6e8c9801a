// The credential cache: who was validated with which password, for a while.
//
// Passwords are never kept, only salted {SHA} hashes. A credential lives until
// the last connection that used it closes, and vouches for its password for
// gCredExpire seconds.
#pragma once

#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "auth/shredder.h"
#include "vorn/clock.h"
#include "vorn/lock.h"

// "{SHA}" and the base64 text of the SHA-1 digest of the password followed by
// the salt; empty when hashing fails, which matches no password.
Shredder HashPassword(const Shredder& password, const Shredder& salt);

// Safe for use by several threads; one instance a process.
class CredManager {
  public:
    explicit CredManager(vorn::Clock clock = vorn::systemTime);
    ~CredManager();
    CredManager(const CredManager&) = delete;
    CredManager& operator=(const CredManager&) = delete;

    // The creation time of the live credential that matches, or 0.
    std::time_t doCacheAuth(const char* dn, const char* password);

    // Keeps a credential that the agent has just validated, used by a connection.
    void addCreds(unsigned long connection, const std::string& dn, const std::string& password);

    // Records that a connection bound with a DN that was answered from the cache.
    void addConnID(unsigned long connection, const std::string& dn);

    // Forgets a closed connection, and the credential that it was the last to use.
    void delCreds(unsigned long connection);

    // Forgets everything.
    void clearCreds();

  private:
    struct Credential;
    // A DN's credential and the connections that bound with it, one element a bind.
    struct t_bind_info {
        std::unique_ptr<Credential> credential;
        std::unique_ptr<std::vector<unsigned long>> connections;
    };

    bool vouches(const Credential& credential, const char* dn, const char* password) const;

    const vorn::Clock m_clock;
    std::map<std::string, t_bind_info, std::less<>> m_binds;  // by DN, as bytes; guarded by m_lock
    std::map<unsigned long, std::string> m_connections;       // the DN last bound with; guarded by m_lock
    vorn::ReaderWriterLock m_lock;
};

// The process's credential cache, made when the back-end registers.
extern CredManager* back_vex_creds;
