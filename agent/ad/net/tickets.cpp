#include "agent/ad/net/tickets.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

#include "agent/directory/log.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

constexpr char kCache[] = "MEMORY:vexagent";

// Tickets are taken anew when a fifth of their life is left, and GSSAPI gets none
// with less than this.
constexpr std::time_t kLeastLeft = 60;
constexpr int kRestOfLife = 5;

std::string_view textOf(const krb5_data& data) {
    return {data.data, data.length};
}

bool isInRealm(krb5_const_principal principal, const std::string& realm) {
    return textOf(principal->realm) == realm;
}

// Puts the library's settings into a file that has no name.
void setEnvironment(const std::string& domain) {
    const std::string text = krb5Settings(domain);
    const int file = ::memfd_create("krb5.conf", MFD_CLOEXEC);  // kept open as long as the process runs
    if (file < 0 || ::write(file, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        throw std::runtime_error("the settings for Kerberos cannot be kept in memory");
    ::setenv("KRB5_CONFIG", ("/proc/self/fd/" + std::to_string(file)).c_str(), 1);
    ::setenv("KRB5CCNAME", kCache, 1);
    ::unsetenv("KRB5_CLIENT_KTNAME");  // GSSAPI would fetch tickets by itself
}

class Cache {
  public:
    explicit Cache(const Kerberos& kerberos) : m_context(kerberos.get()) {
        if (krb5_cc_resolve(m_context, kCache, &m_cache) != 0) throw std::bad_alloc();
    }
    ~Cache() { krb5_cc_close(m_context, m_cache); }
    Cache(const Cache&) = delete;
    Cache& operator=(const Cache&) = delete;
    krb5_ccache get() const { return m_cache; }

  private:
    const krb5_context m_context;
    krb5_ccache m_cache = nullptr;
};

krb5_error_code buildPrincipal(krb5_context context, const std::string& realm,
                               std::initializer_list<std::string_view> components,
                               krb5_principal* principal) {
    // The library's variadic function wants a number of arguments that is known.
    const auto* first = components.begin();
    const auto length = [](std::string_view text) { return static_cast<unsigned>(text.size()); };
    if (components.size() == 1)
        return krb5_build_principal_ext(context, principal, length(realm), realm.data(), length(first[0]),
                                        first[0].data(), 0);
    return krb5_build_principal_ext(context, principal, length(realm), realm.data(), length(first[0]),
                                    first[0].data(), length(first[1]), first[1].data(), 0);
}

}  // namespace

krb5_principal machineName(const Kerberos& kerberos, const KrbKeytab& keytab, const AdOptions& options) {
    krb5_principal name = nullptr;
    if (!options.principal.empty()) {
        krb5_parse_name(kerberos.get(), options.principal.c_str(), &name);
        return name;
    }
    const std::string realm = realmOf(options.domain);
    return keytab.find([&](krb5_const_principal principal) {
        return principal->length == 1 && isInRealm(principal, realm) &&
               textOf(principal->data[0]).ends_with('$');
    });
}

namespace {

// What tickets for this host are made out to: its first "host/..." in the keytab, or
// the machine's name. Null when there is neither; the caller frees it.
krb5_principal ownName(const Kerberos& kerberos, const KrbKeytab& keytab, const AdOptions& options) {
    const std::string realm = realmOf(options.domain);
    krb5_principal host = keytab.find([&](krb5_const_principal principal) {
        return principal->length == 2 && isInRealm(principal, realm) &&
               vorn::equalsIgnoreCase(textOf(principal->data[0]), "host");
    });
    return host != nullptr ? host : machineName(kerberos, keytab, options);
}

// Whether a KDC has refused the machine itself, and would again.
bool isRefusal(krb5_error_code code) {
    switch (code) {
        case KRB5KDC_ERR_PREAUTH_FAILED:
        case KRB5KRB_AP_ERR_BAD_INTEGRITY:
        case KRB5KDC_ERR_CLIENT_REVOKED:
        case KRB5KDC_ERR_C_PRINCIPAL_UNKNOWN:
        case KRB5KDC_ERR_KEY_EXP:
        case KRB5KDC_ERR_NAME_EXP:
        case KRB5KDC_ERR_POLICY:
            return true;
        default:
            return false;
    }
}

// Empty when there is no memory for it.
std::string nameWithoutRealm(krb5_context context, krb5_const_principal principal) {
    char* text = nullptr;
    if (krb5_unparse_name_flags(context, principal, KRB5_PRINCIPAL_UNPARSE_NO_REALM, &text) != 0) return {};
    std::string name = text;
    krb5_free_unparsed_name(context, text);
    return name;
}

}  // namespace

Tickets::Tickets(const AdOptions& options, KdcConversation::ControllersOf controllersOf)
    : m_options(options), m_controllersOf(std::move(controllersOf)) {
    setEnvironment(options.domain);
}

KrbStatus Tickets::renew(Kerberos& kerberos, krb5_ccache cache) {
    const KrbKeytab keytab(kerberos, m_options.keytab);
    if (!keytab.status().ok()) return keytab.status();
    const KrbPrincipal name(kerberos.get(), machineName(kerberos, keytab, m_options));
    if (name.get() == nullptr)
        return {KRB5_KT_NOTFOUND,
                "keytab " + m_options.keytab + ": no name of the form HOST$@" + realmOf(m_options.domain)};
    KrbCredentials credentials(kerberos.get());
    KrbStatus status = kerberos.firstCredentials(
        name.get(),
        [&](krb5_init_creds_context context) {
            return krb5_init_creds_set_keytab(kerberos.get(), context, keytab.get());
        },
        credentials.get());
    if (status.code == KRB5KDC_ERR_PREAUTH_FAILED || status.code == KRB5KRB_AP_ERR_BAD_INTEGRITY)
        status.text =
            "keytab " + m_options.keytab + ": the machine's key is another one by now: " + status.text;
    if (!status.ok()) return status;
    status = kerberos.status(krb5_cc_initialize(kerberos.get(), cache, credentials.get().client));
    if (status.ok()) status = kerberos.status(krb5_cc_store_cred(kerberos.get(), cache, &credentials.get()));
    if (!status.ok()) return status;
    m_start = m_options.clock();
    m_end = credentials.get().times.endtime;
    return {};
}

// The machine's ticket, asked for as long as its key may be shown.
KrbStatus Tickets::logIn(Kerberos& kerberos, KdcConversation& kdc, krb5_ccache cache) {
    m_own.use(stampOf(m_options.keytab));
    kdc.askOnly([this](const Peer& peer) { return m_own.mayTry(peer, now()); });
    KrbStatus status = renew(kerberos, cache);
    kdc.askOnly(nullptr);
    if (status.ok() && m_own.accepted(kdc.answered(), now()))
        AGENT_LOG(vorn::Logger::kInfo, "the domain lets the machine in again");
    if (!isRefusal(status.code)) return status;
    status.barred = true;
    if (m_own.refused(kdc.answered(), now()))
        AGENT_LOG(
            vorn::Logger::kError,
            "the domain refuses the key in %s: %s. Join the domain anew (adcli join, or realm join), or "
            "see that the machine's account is neither locked nor disabled; what is there now is tried "
            "again after 5 seconds, and then ever more rarely, up to every 15 minutes",
            m_options.keytab.c_str(), status.text.c_str());
    return status;
}

KrbStatus Tickets::serviceTicket(Kerberos& kerberos, krb5_ccache cache, const std::string& domain,
                                 const std::string& host, std::time_t& end) {
    krb5_context context = kerberos.get();
    KrbPrincipal client(context);
    KrbPrincipal service(context);
    krb5_error_code code = krb5_cc_get_principal(context, cache, client.place());
    if (code == 0) code = buildPrincipal(context, realmOf(domain), {"ldap", host}, service.place());
    if (code != 0) return kerberos.status(code);
    krb5_creds wanted{};
    wanted.client = client.get();
    wanted.server = service.get();
    krb5_creds* ticket = nullptr;
    code = krb5_get_credentials(context, 0, cache, &wanted, &ticket);
    if (code != 0) return kerberos.status(code);
    end = ticket->times.endtime;
    // GSSAPI takes a host outside the domain for one of the machine's own realm.
    KrbPrincipal alias(context);
    if (!vorn::equalsIgnoreCase(domain, m_options.domain) &&
        buildPrincipal(context, realmOf(m_options.domain), {"ldap", host}, alias.place()) == 0) {
        krb5_creds copy = *ticket;
        copy.server = alias.get();
        code = krb5_cc_store_cred(context, cache, &copy);
    }
    krb5_free_creds(context, ticket);
    return kerberos.status(code);
}

KrbStatus Tickets::prepare(const std::string& domain, const std::string& host, const Deadline& deadline,
                           std::time_t& end) {
    const std::unique_lock lock(m_mutex, deadline.end());
    if (!lock.owns_lock()) return {KRB5_KDC_UNREACH, "no ticket could be had in time"};
    KdcConversation kdc(m_controllersOf, deadline);
    Kerberos kerberos(m_options.domain, kdc);
    const Cache cache(kerberos);
    const std::time_t time = m_options.clock();
    const std::time_t rest = std::max<std::time_t>(kLeastLeft, (m_end - m_start) / kRestOfLife);
    if (time + rest >= m_end)
        if (KrbStatus status = logIn(kerberos, kdc, cache.get()); !status.ok()) {
            // An old one serves as long as it is valid.
            if (time + kLeastLeft >= m_end) return status;
        }
    return serviceTicket(kerberos, cache.get(), domain, host, end);
}

class KerberosProof {
  public:
    static Accepted make() { return Accepted(); }
};

PasswordCheck checkPassword(const AdOptions& options, KdcConversation& kdc, const std::string& account,
                            const std::string& domain, const std::string& password) {
    Kerberos kerberos(options.domain, kdc);
    krb5_context context = kerberos.get();
    // A NUL would end the password early for the library.
    if (password.find('\0') != std::string::npos) return {kerberos.status(KRB5KDC_ERR_PREAUTH_FAILED)};
    KrbPrincipal client(context);
    if (const krb5_error_code code = buildPrincipal(context, realmOf(domain), {account}, client.place());
        code != 0)
        return {kerberos.status(code)};
    const KrbKeytab keytab(kerberos, options.keytab);
    const KrbPrincipal self(context, keytab.status().ok() ? ownName(kerberos, keytab, options) : nullptr);
    // What is wanted is a ticket for this host, to be checked with the keytab. A KDC of
    // the host's own realm gives it at once, without one for tickets before it.
    const bool atOnce = self.get() != nullptr && isInRealm(self.get(), realmOf(domain));
    const std::string service = atOnce ? nameWithoutRealm(context, self.get()) : "";
    KrbCredentials credentials(context);
    const KrbStatus status = kerberos.firstCredentials(
        client.get(),
        [&](krb5_init_creds_context creds) {
            const krb5_error_code code =
                service.empty() ? 0 : krb5_init_creds_set_service(context, creds, service.c_str());
            return code != 0 ? code : krb5_init_creds_set_password(context, creds, password.c_str());
        },
        credentials.get());
    if (!status.ok()) kerberos.levelRefusal(password);
    if (!status.ok()) return {status};
    if (!keytab.status().ok()) return {keytab.status(), false};
    if (self.get() == nullptr) return {kerberos.status(KRB5_KT_NOTFOUND), false};
    krb5_verify_init_creds_opt verify;
    krb5_verify_init_creds_opt_init(&verify);
    krb5_verify_init_creds_opt_set_ap_req_nofail(&verify, 1);
    const krb5_error_code code =
        krb5_verify_init_creds(context, &credentials.get(), self.get(), keytab.get(), nullptr, &verify);
    if (code != 0) return {kerberos.status(code), false};
    return {{}, true, KerberosProof::make()};
}

}  // namespace vexagent
