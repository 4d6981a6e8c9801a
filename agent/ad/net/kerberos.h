// SPDX-License-Identifier: Apache-2.0
// The Kerberos library, with what it hands out in owners' hands.
#pragma once

#include <krb5.h>

#include <functional>
#include <memory>
#include <string>

#include "agent/ad/net/kdc.h"

namespace vexagent {

// Owners of what the library hands out. They live no longer than the context.
class KrbPrincipal {
  public:
    explicit KrbPrincipal(krb5_context context, krb5_principal principal = nullptr)
        : m_context(context), m_principal(principal) {}
    ~KrbPrincipal() { krb5_free_principal(m_context, m_principal); }
    KrbPrincipal(KrbPrincipal&& other) noexcept
        : m_context(other.m_context), m_principal(std::exchange(other.m_principal, nullptr)) {}
    KrbPrincipal& operator=(KrbPrincipal&&) = delete;
    // Null where there is none.
    krb5_principal get() const { return m_principal; }
    krb5_principal* place() { return &m_principal; }

  private:
    const krb5_context m_context;
    krb5_principal m_principal;
};

class KrbCredentials {
  public:
    explicit KrbCredentials(krb5_context context) : m_context(context) {}
    ~KrbCredentials() { krb5_free_cred_contents(m_context, &m_value); }
    KrbCredentials(KrbCredentials&& other) noexcept
        : m_context(other.m_context), m_value(std::exchange(other.m_value, krb5_creds{})) {}
    KrbCredentials& operator=(KrbCredentials&&) = delete;
    krb5_creds& get() { return m_value; }

  private:
    const krb5_context m_context;
    krb5_creds m_value{};
};

// A library context for one thread, with settings of the agent's own; the
// conversation outlives it.
class Kerberos {
  public:
    // Throws std::bad_alloc.
    Kerberos(const std::string& domain, KdcConversation& kdc);

    krb5_context get() const { return m_context.get(); }

    // How a library call ended, and why it failed.
    Krb<Done> outcome(krb5_error_code code) const;
    KrbFailure failure(krb5_error_code code) const;

    // Asks for first credentials and carries the messages. prepare sets what the
    // KDC is to be convinced with: a password or a keytab, and what the credentials
    // are to be for. What does not convince it is sent once, never again.
    using Prepare = std::function<krb5_error_code(krb5_init_creds_context)>;
    Krb<KrbCredentials> firstCredentials(krb5_principal client, const Prepare& prepare);

    // After credentials that were refused before the KDC wanted to see a password: asks
    // and computes what it would have taken to be refused for a wrong one. Otherwise
    // does nothing.
    void levelRefusal(const std::string& password);

  private:
    struct FreeContext {
        void operator()(krb5_context context) const { krb5_free_context(context); }
    };

    // Whether the library has a message to be carried; it is in m_message then.
    Krb<bool> step(krb5_init_creds_context context, const std::string& reply);
    Krb<Done> steps(krb5_init_creds_context context);

    KdcConversation& m_kdc;
    std::string m_message;      // the last one that was answered
    std::string m_realm;        // that it was for
    bool m_convincing = false;  // whether it says more than who asks
    std::unique_ptr<std::remove_pointer_t<krb5_context>, FreeContext> m_context;
};

// Lives no longer than the context.
class KrbKeytab {
  public:
    // Why there is none that can be read.
    static Krb<KrbKeytab> open(const Kerberos& kerberos, const std::string& file);
    ~KrbKeytab() {
        if (m_keytab != nullptr) krb5_kt_close(m_context, m_keytab);
    }
    KrbKeytab(KrbKeytab&& other) noexcept
        : m_context(other.m_context), m_keytab(std::exchange(other.m_keytab, nullptr)) {}
    KrbKeytab& operator=(KrbKeytab&&) = delete;
    krb5_keytab get() const { return m_keytab; }

    // The first of its names that fits; null when none does.
    KrbPrincipal find(const std::function<bool(krb5_const_principal)>& fits) const;

  private:
    explicit KrbKeytab(krb5_context context) : m_context(context) {}

    const krb5_context m_context;
    krb5_keytab m_keytab = nullptr;
};

}  // namespace vexagent
