// Kerberos without its library's network and without the host's krb5.conf.
//
// The library's own way to a KDC takes up to 20 seconds to leave one that hangs,
// asks by UDP and TCP at the same time, and sends a password that was wrong once
// more to the "primary" KDC. So messages are carried here: to the controllers that
// the agent has chosen, by TCP, each message once, within a deadline.
#pragma once

#include <krb5.h>

#include <functional>
#include <memory>
#include <string>

#include "agent/ad/net/controllers.h"
#include "agent/ad/net/deadline.h"

namespace vexagent {

// How a call ended: 0 or an error code of the library, and its text.
struct KrbStatus {
    krb5_error_code code = 0;
    std::string text;
    bool barred = false;  // the agent's own key is refused, or was a short while ago
    bool ok() const { return code == 0; }
};

// One conversation with the KDCs of the forest. It stays with the controller that
// answered first in each realm. For one thread.
class KdcConversation {
  public:
    // The controllers of a realm; null for a realm that is not known.
    using ControllersOf = std::function<Controllers*(const std::string& realm)>;

    KdcConversation(ControllersOf controllersOf, const Deadline& deadline)
        : m_controllersOf(std::move(controllersOf)), m_deadline(deadline) {}

    // Sends one message and reads the reply to it. A message that may not be
    // repeated goes to one controller at most.
    KrbStatus exchange(const std::string& realm, std::string_view message, bool repeatable,
                       std::string& reply);

    // From now on only controllers are asked that this is true for; null for all.
    using Admits = std::function<bool(const Peer&)>;
    void askOnly(Admits admits) { m_admits = std::move(admits); }

    // Who answered last; no host before the first answer.
    const Peer& answered() const { return m_peer; }

  private:
    KrbStatus ask(const std::string& host, std::string_view message, const Deadline& deadline,
                  std::string& reply, bool& sent) const;

    const ControllersOf m_controllersOf;
    const Deadline m_deadline;
    Admits m_admits;
    std::string m_realm;  // of m_peer
    Peer m_peer;          // that answered
};

// A library context for one thread, with settings of the agent's own; the
// conversation outlives it.
class Kerberos {
  public:
    // Throws std::bad_alloc.
    Kerberos(const std::string& domain, KdcConversation& kdc);

    krb5_context get() const { return m_context.get(); }

    // The status of a library call.
    KrbStatus status(krb5_error_code code) const;

    // Asks for first credentials and carries the messages. prepare sets what the
    // KDC is to be convinced with: a password or a keytab, and what the credentials
    // are to be for. What does not convince it is sent once, never again.
    using Prepare = std::function<krb5_error_code(krb5_init_creds_context)>;
    KrbStatus firstCredentials(krb5_principal client, const Prepare& prepare, krb5_creds& credentials);

    // After credentials that were refused before the KDC wanted to see a password: asks
    // and computes what it would have taken to be refused for a wrong one. Otherwise
    // does nothing.
    void levelRefusal(const std::string& password);

  private:
    struct FreeContext {
        void operator()(krb5_context context) const { krb5_free_context(context); }
    };

    KrbStatus steps(krb5_init_creds_context context);

    KdcConversation& m_kdc;
    std::string m_message;      // the last one that was answered
    std::string m_realm;        // that it was for
    bool m_convincing = false;  // whether it says more than who asks
    std::unique_ptr<std::remove_pointer_t<krb5_context>, FreeContext> m_context;
};

// Owners of what the library hands out.
class KrbPrincipal {
  public:
    explicit KrbPrincipal(krb5_context context, krb5_principal principal = nullptr)
        : m_context(context), m_principal(principal) {}
    ~KrbPrincipal() { krb5_free_principal(m_context, m_principal); }
    KrbPrincipal(const KrbPrincipal&) = delete;
    KrbPrincipal& operator=(const KrbPrincipal&) = delete;
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
    KrbCredentials(const KrbCredentials&) = delete;
    KrbCredentials& operator=(const KrbCredentials&) = delete;
    krb5_creds& get() { return m_value; }

  private:
    const krb5_context m_context;
    krb5_creds m_value{};
};

class KrbKeytab {
  public:
    // The status tells whether there is one.
    KrbKeytab(const Kerberos& kerberos, const std::string& file);
    ~KrbKeytab() {
        if (m_keytab != nullptr) krb5_kt_close(m_context, m_keytab);
    }
    KrbKeytab(const KrbKeytab&) = delete;
    KrbKeytab& operator=(const KrbKeytab&) = delete;
    krb5_keytab get() const { return m_keytab; }
    const KrbStatus& status() const { return m_status; }

    // The first of its names that fits; null when none does. Freed by the caller.
    krb5_principal find(const std::function<bool(krb5_const_principal)>& fits) const;

  private:
    const krb5_context m_context;
    krb5_keytab m_keytab = nullptr;
    KrbStatus m_status;
};

// The settings above for the contexts that GSSAPI makes by itself: text in the
// syntax of krb5.conf. No KDC is named in it, so what is not in the credentials
// cache is not fetched behind the agent's back.
std::string krb5Settings(const std::string& domain);

// "EXAMPLE.COM" for "example.com".
std::string realmOf(const std::string& domain);

}  // namespace vexagent
