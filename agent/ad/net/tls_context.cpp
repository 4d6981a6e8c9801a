// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/tls_context.h"

namespace vexagent {
namespace {

bool isSame(const struct stat& one, const struct stat& other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino && one.st_size == other.st_size &&
           one.st_mtim.tv_sec == other.st_mtim.tv_sec && one.st_mtim.tv_nsec == other.st_mtim.tv_nsec;
}

}  // namespace

bool TlsContext::give(LDAP* ldap, const std::string& authorities) {
    struct stat file {};
    if (::stat(authorities.c_str(), &file) != 0) return false;
    const std::lock_guard lock(m_mutex);
    if (m_context != nullptr && isSame(file, m_file))
        return ldap_set_option(ldap, LDAP_OPT_X_TLS_CTX, m_context) == LDAP_OPT_SUCCESS;
    const int client = 0;
    if (ldap_set_option(ldap, LDAP_OPT_X_TLS_NEWCTX, &client) != LDAP_OPT_SUCCESS) return false;
    m_file = file;
    return remember(ldap);
}

// Asked for once: libldap counts whoever asks, and takes nothing back.
bool TlsContext::remember(LDAP* ldap) {
    LDAP* keeper = nullptr;
    m_context = nullptr;
    if (ldap_initialize(&keeper, nullptr) != LDAP_SUCCESS) return false;
    m_keeper.reset(keeper);
    void* made = nullptr;
    if (ldap_get_option(ldap, LDAP_OPT_X_TLS_CTX, &made) != LDAP_OPT_SUCCESS ||
        ldap_set_option(keeper, LDAP_OPT_X_TLS_CTX, made) != LDAP_OPT_SUCCESS)
        return false;
    m_context = made;
    return true;
}

}  // namespace vexagent
