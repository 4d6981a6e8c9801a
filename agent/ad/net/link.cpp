#include "agent/ad/net/link.h"

#include <fcntl.h>
#include <openldap.h>
#include <sasl/sasl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <mutex>

#include "agent/ad/net/results.h"
#include "agent/directory/log.h"
#include "vorn/own_file.h"
#include "vorn/secret.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

constexpr milliseconds kConnectTime{1000};
constexpr milliseconds kPatience{1500};  // without a sign before the controller is looked at
constexpr int kPatienceShare = 4;        // or this part of the time that is left
constexpr milliseconds kGrace{100};      // before a call that is late is ended by force
constexpr milliseconds kGoodbyeTime{200};
constexpr milliseconds kTurnTime{1000};  // for another attempt of the agent's to be let in
constexpr std::size_t kUnderWay = 8;
constexpr std::time_t kTicketReserve = 60;

struct FreeMessage {
    void operator()(LDAPMessage* message) const { ldap_msgfree(message); }
};
using Message = std::unique_ptr<LDAPMessage, FreeMessage>;

struct FreeControls {
    void operator()(LDAPControl** controls) const { ldap_controls_free(controls); }
    void operator()(LDAPControl* control) const { ldap_control_free(control); }
};

struct FreeBer {
    void operator()(BerElement* ber) const { ber_free(ber, 0); }
};

struct FreeMemory {
    void operator()(void* memory) const { ldap_memfree(memory); }
};

std::string text(const berval& value) {
    return {value.bv_val, value.bv_len};
}

// The ticket says all that there is to say.
int answerNothing(LDAP*, unsigned, void*, void* questions) {
    for (auto* question = static_cast<sasl_interact_t*>(questions); question->id != SASL_CB_LIST_END;
         ++question) {
        question->result = question->defresult != nullptr ? question->defresult : "";
        question->len = static_cast<unsigned>(std::strlen(static_cast<const char*>(question->result)));
    }
    return LDAP_SUCCESS;
}

bool meansAnother(int code) {
    return code == LDAP_BUSY || code == LDAP_UNAVAILABLE || code == LDAP_SERVER_DOWN ||
           code == LDAP_TIMEOUT || code == LDAP_CONNECT_ERROR || code == LDAP_DECODING_ERROR;
}

std::string scheme(Transport transport) {
    return transport == Transport::Ldaps ? "ldaps://" : "ldap://";
}

std::string urlOf(Transport transport, const Peer& peer) {
    const bool bare = peer.host.find(':') != std::string::npos;
    return scheme(transport) + (bare ? "[" + peer.host + "]" : peer.host) + ":" + std::to_string(peer.port);
}

// libldap, and what it has TLS from, set themselves up at their first use: one thread's,
// before others come.
void prepareLibldap(bool tls) {
    LDAP* ldap = nullptr;
    if (ldap_create(&ldap) != LDAP_SUCCESS) return;  // the link's own attempt tells why
    const int client = 0;
    if (tls) ldap_set_option(ldap, LDAP_OPT_X_TLS_NEWCTX, &client);
    ldap_unbind_ext(ldap, nullptr, nullptr);
}

// TLS 1.2 at least. Where the library takes TLS from GnuTLS, its setting for the lowest
// version does nothing: that wants the versions among the ciphers, as OpenSSL does not.
bool refuseOldTls(LDAP* ldap) {
    if (tlsPackage() == "GnuTLS")
        return ldap_set_option(ldap, LDAP_OPT_X_TLS_CIPHER_SUITE,
                               "NORMAL:-VERS-ALL:+VERS-TLS1.3:+VERS-TLS1.2") == LDAP_OPT_SUCCESS;
    const int least = LDAP_OPT_X_TLS_PROTOCOL_TLS1_2;
    return ldap_set_option(ldap, LDAP_OPT_X_TLS_PROTOCOL_MIN, &least) == LDAP_OPT_SUCCESS;
}

// The service account, or the machine, is refused: nobody is asked for a while.
LdapStatus barred(const std::string& what) {
    return {
        LDAP_UNAVAILABLE, "the domain refuses " + what + "; it is tried again later", true, false, {}, true};
}

std::string serviceName(const AdOptions& options) {
    return options.bindName + " (ad.bind.name)";
}

void tellRefusal(const AdOptions& options, const std::string& reason) {
    AGENT_LOG(
        vorn::Logger::kError,
        "the domain refuses %s: %s. Put its password into the first line of %s (ad.bind.password.file), "
        "and see that the account is neither locked nor disabled; what is there now is tried again "
        "after 5 seconds, and then ever more rarely, up to every 15 minutes",
        serviceName(options).c_str(), vorn::printable(reason).c_str(), options.bindPasswordFile.c_str());
}

}  // namespace

LdapFailure failureOf(const LdapStatus& status) {
    return {status.code, status.text, status.lost, status.told};
}

LdapStatus statusOf(const LdapFailure& failure) {
    return {failure.code, failure.text, failure.lost, false, failure.told};
}

LdapStatus timeIsUp() {
    return statusOf(outOfTime());
}

std::string tlsPackage() {
    char* package = nullptr;
    ldap_get_option(nullptr, LDAP_OPT_X_TLS_PACKAGE, &package);
    const std::unique_ptr<char, FreeMemory> owner(package);
    return package != nullptr ? package : "";
}

bool isMissing(const LdapStatus& status) {
    return !status.ok() && isMissing(failureOf(status));
}

Result resultOf(const LdapStatus& status) {
    return status.ok() ? Result() : resultOf(failureOf(status));
}

// ------------------------------------------------------------------- opening

LdapStatus Link::lost(int code, const std::string& reason) {
    m_lost = true;
    return {code, m_peer.host + " port " + std::to_string(m_peer.port) + ": " + reason, true};
}

// What the library and the controller say about a failure.
std::string Link::failureText(int code) {
    std::string reason = ldap_err2string(code);
    char* more = nullptr;
    ldap_get_option(m_ldap.get(), LDAP_OPT_DIAGNOSTIC_MESSAGE, &more);
    const std::unique_ptr<char, FreeMemory> owner(more);
    if (more != nullptr && *more != '\0') reason.append(": ").append(more);
    return reason;
}

LdapStatus Link::failure(int code) {
    const std::string reason = failureText(code);
    if (meansAnother(code)) return lost(code, reason);
    return {code, reason};
}

LdapStatus Link::connect(const Deadline& deadline) {
    static std::once_flag prepared;
    std::call_once(prepared, prepareLibldap, m_context.options.transport != Transport::Gssapi);
    std::string reason;
    vorn::Descriptor socket = connectTo(m_peer, deadline.atMost(kConnectTime), reason);
    if (socket.get() < 0) {
        m_lost = true;
        return {LDAP_SERVER_DOWN, reason, true};
    }
    // The library may close its descriptor at any time, and its number may then be
    // another's; the watchdog gets one that stays.
    m_socket = vorn::Descriptor(::fcntl(socket.get(), F_DUPFD_CLOEXEC, 0));
    if (m_socket.get() < 0) return lost(LDAP_LOCAL_ERROR, std::strerror(errno));
    LDAP* ldap = nullptr;
    const int code =
        ldap_init_fd(socket.get(), LDAP_PROTO_TCP, urlOf(m_context.options.transport, m_peer).c_str(), &ldap);
    if (code != LDAP_SUCCESS) return lost(code, ldap_err2string(code));
    socket.release();
    m_ldap.reset(ldap);
    const int version = LDAP_VERSION3;
    ldap_set_option(ldap, LDAP_OPT_PROTOCOL_VERSION, &version);
    ldap_set_option(ldap, LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
    ldap_set_option(ldap, LDAP_OPT_RESTART, LDAP_OPT_ON);
    return m_context.options.transport == Transport::Gssapi ? LdapStatus() : startTls(deadline);
}

LdapStatus Link::startTls(const Deadline& deadline) {
    LDAP* ldap = m_ldap.get();
    const std::string& authorities = m_context.options.tlsCa;
    const int demand = LDAP_OPT_X_TLS_DEMAND;
    if (!refuseOldTls(ldap)) return {LDAP_LOCAL_ERROR, "TLS before version 1.2 cannot be refused"};
    if (ldap_set_option(ldap, LDAP_OPT_X_TLS_CACERTFILE, authorities.c_str()) != LDAP_OPT_SUCCESS ||
        ldap_set_option(ldap, LDAP_OPT_X_TLS_REQUIRE_CERT, &demand) != LDAP_OPT_SUCCESS ||
        !m_context.tls.give(ldap, authorities))
        return {LDAP_LOCAL_ERROR, "the certificates in \"" + authorities + "\" (ad.tls.ca) cannot be read"};
    if (m_context.options.transport == Transport::StartTls) {
        int id = 0;
        int code = ldap_start_tls(ldap, nullptr, nullptr, &id);
        if (code != LDAP_SUCCESS) return failure(code);
        LDAPMessage* answer = nullptr;
        if (LdapStatus status = waitFor(id, deadline, answer); !status.ok()) return status;
        const Message owner(answer);
        if (ldap_parse_result(ldap, answer, &code, nullptr, nullptr, nullptr, nullptr, 0) != LDAP_SUCCESS)
            code = LDAP_DECODING_ERROR;
        if (code != LDAP_SUCCESS) return failure(code);
    }
    // The handshake may wait, or spin, for ever: the watchdog ends it.
    const Watchdog::Watch watch(m_context.watchdog, m_socket.get(), deadline);
    const int code = ldap_install_tls(ldap);
    if (code == LDAP_SUCCESS) return {};
    if (deadline.passed()) return lost(LDAP_TIMEOUT, "no answer in the TLS handshake");
    // The library says little more than that; most often it is the certificate.
    return lost(code,
                std::string("no TLS, see ad.tls.ca and the controller's certificate: ") + failureText(code));
}

LdapStatus Link::bindWithTicket(const std::string& domain, const Deadline& deadline) {
    if (const KrbStatus ticket = m_context.tickets->prepare(domain, m_peer.host, deadline, m_end);
        !ticket.ok()) {
        LdapStatus status = lost(LDAP_LOCAL_ERROR, "no ticket for ldap/" + m_peer.host + ": " + ticket.text);
        status.barred = ticket.barred;
        return status;
    }
    LDAP* ldap = m_ldap.get();
    ldap_set_option(ldap, LDAP_OPT_X_SASL_NOCANON, LDAP_OPT_ON);
    // At least 56 bits: signed and sealed.
    char properties[] = "noanonymous,noplain,minssf=56,maxbufsize=16777215";
    ldap_set_option(ldap, LDAP_OPT_X_SASL_SECPROPS, properties);
    const auto lock = m_context.tickets->lockForUse();
    const Watchdog::Watch watch(m_context.watchdog, m_socket.get(), deadline);
    const int code = ldap_sasl_interactive_bind_s(ldap, nullptr, "GSSAPI", nullptr, nullptr, LDAP_SASL_QUIET,
                                                  answerNothing, nullptr);
    if (code == LDAP_SUCCESS) return {};
    if (deadline.passed()) return lost(LDAP_TIMEOUT, "no answer to the bind");
    return failure(code);
}

// Introduces somebody by name and password. Good only when the controller's answer to
// this bind, and no other message, says so.
LdapStatus Link::bind(const std::string& name, const std::string& password, const Deadline& deadline) {
    // A bind with a name and no password succeeds without proving anything.
    if (name.empty() || password.empty()) return {LDAP_INVALID_CREDENTIALS, "no password"};
    // The library only reads it, but its record knows no const.
    berval secret = {password.size(), const_cast<char*>(password.data())};
    int id = 0;
    int code = ldap_sasl_bind(m_ldap.get(), name.c_str(), LDAP_SASL_SIMPLE, &secret, nullptr, nullptr, &id);
    if (code != LDAP_SUCCESS) return failure(code);
    LDAPMessage* answer = nullptr;
    if (LdapStatus status = waitFor(id, deadline, answer); !status.ok()) return status;
    const Message owner(answer);
    char* more = nullptr;
    if (ldap_msgtype(answer) != LDAP_RES_BIND ||
        ldap_parse_result(m_ldap.get(), answer, &code, nullptr, &more, nullptr, nullptr, 0) != LDAP_SUCCESS)
        code = LDAP_DECODING_ERROR;
    const std::unique_ptr<char, FreeMemory> ownerOfMore(more);
    if (code == LDAP_SUCCESS) return {};
    LdapStatus status = failure(code);
    if (more != nullptr && *more != '\0') status.text = std::string(ldap_err2string(code)) + ": " + more;
    return status;
}

class BindProof {
  public:
    static Accepted make() { return Accepted(); }
};

Expected<Accepted, LdapFailure> Link::checkPassword(const std::string& dn, const std::string& password,
                                                    const Deadline& deadline) {
    // Whatever a controller makes of a NUL, the part before it is not the password.
    if (password.find('\0') != std::string::npos)
        return vorn::unexpected(LdapFailure(LDAP_INVALID_CREDENTIALS, "a password with a NUL"));
    const LdapStatus status = bind(dn, password, deadline);
    if (!status.ok()) return vorn::unexpected(failureOf(status));
    return BindProof::make();
}

LdapStatus Link::showPassword(const Deadline& deadline) {
    const AdOptions& options = m_context.options;
    std::optional<vorn::Secret> password;
    try {
        password = vorn::readSecretLine(options.bindPasswordFile);
        if (!password)
            return lost(LDAP_LOCAL_ERROR,
                        "no password in " + options.bindPasswordFile + " (ad.bind.password.file)");
    } catch (const vorn::OwnFileError& error) {
        return lost(LDAP_LOCAL_ERROR, std::string(error.what()) + " (ad.bind.password.file)");
    }
    return bind(options.bindName, password->text(), deadline);
}

LdapStatus Link::bindAsService(const Deadline& deadline) {
    const AdOptions& options = m_context.options;
    OwnLogin& own = m_context.ownLogin;
    const auto turn = own.takeTurn(now(), deadline.atMost(kTurnTime));
    own.use(stampOf(options.bindPasswordFile));
    if (!own.mayTry(m_peer, now())) return barred(serviceName(options));
    LdapStatus status = showPassword(deadline);
    if (status.ok() && own.accepted(m_peer, now()))
        AGENT_LOG(vorn::Logger::kInfo, "the domain lets %s in again", serviceName(options).c_str());
    if (status.ok() || status.lost || status.code < 0) return status;
    // Not the code: nobody's password but the agent's own was wrong.
    if (own.refused(m_peer, now())) tellRefusal(options, status.text);
    status = lost(LDAP_UNAVAILABLE, "as " + serviceName(options) + ": " + status.text);
    status.barred = true;
    return status;
}

LdapStatus Link::introduce(const std::string& domain, const Deadline& deadline) {
    return m_context.options.transport == Transport::Gssapi ? bindWithTicket(domain, deadline)
                                                            : bindAsService(deadline);
}

LdapStatus Link::openAnonymous(const LinkContext& context, const Peer& peer, const Deadline& deadline,
                               std::unique_ptr<Link>& link) {
    std::unique_ptr<Link> fresh(new Link(context, peer));
    LdapStatus status = fresh->connect(deadline);
    if (status.ok()) link = std::move(fresh);
    return status;
}

LdapStatus Link::open(const LinkContext& context, const std::string& domain, const Peer& peer,
                      const Deadline& deadline, std::unique_ptr<Link>& link) {
    if (context.options.transport != Transport::Gssapi) {
        context.ownLogin.use(stampOf(context.options.bindPasswordFile));
        if (!context.ownLogin.mayTry(peer, now())) return barred(serviceName(context.options));
    }
    std::unique_ptr<Link> fresh;
    LdapStatus status = openAnonymous(context, peer, deadline, fresh);
    if (status.ok()) status = fresh->introduce(domain, deadline);
    if (status.ok()) {
        fresh->m_answeredAt = now();
        link = std::move(fresh);
    } else if (!status.lost) {
        // Whatever it is, nothing comes of this controller.
        status = fresh ? fresh->lost(status.code, status.text)
                       : LdapStatus{status.code, peer.host + ": " + status.text, true};
    }
    return status;
}

Link::~Link() {
    if (!m_ldap) return;
    // What is said at parting is not waited for.
    const Watchdog::Watch watch(m_context.watchdog, m_socket.get(), within(kGoodbyeTime));
    m_ldap.reset();
}

bool Link::looksUsable(std::time_t time) const {
    return !m_lost && (m_end == 0 || time + kTicketReserve < m_end) && !isDisturbed(m_socket.get());
}

// ------------------------------------------------------------------ searches

LdapStatus Link::start(const LdapSearch& search, const std::string& cookie, int& id, int pageSize) {
    LDAP* ldap = m_ldap.get();
    berval mark = {cookie.size(), const_cast<char*>(cookie.data())};
    LDAPControl* page = nullptr;
    int code = LDAP_SUCCESS;
    if (pageSize > 0)
        code = ldap_create_page_control(ldap, pageSize, cookie.empty() ? nullptr : &mark, 1, &page);
    if (code != LDAP_SUCCESS) return failure(code);
    const std::unique_ptr<LDAPControl, FreeControls> owner(page);
    // Referrals are not followed, so none need be sent.
    LDAPControl domainScope = {const_cast<char*>("1.2.840.113556.1.4.1339"), {0, nullptr}, 0};
    LDAPControl* controls[] = {&domainScope, page, nullptr};
    std::vector<char*> names;
    for (const std::string& name : search.attributes) names.push_back(const_cast<char*>(name.c_str()));
    names.push_back(nullptr);
    const Watchdog::Watch watch(m_context.watchdog, m_socket.get(), within(m_context.options.timeout));
    code = ldap_search_ext(ldap, search.base.c_str(), search.scope, search.filter.c_str(),
                           search.attributes.empty() ? nullptr : names.data(), 0, controls, nullptr, nullptr,
                           LDAP_NO_LIMIT, &id);
    return code == LDAP_SUCCESS ? LdapStatus() : failure(code);
}

LdapStatus Link::waitFor(int id, const Deadline& deadline, LDAPMessage*& message) {
    const Watchdog::Watch watch(m_context.watchdog, m_socket.get(),
                                Deadline(deadline.clock(), deadline.end() + kGrace));
    const milliseconds patience = deadline.share(kPatience, kPatienceShare);
    for (;;) {
        const milliseconds time = m_stillThere ? std::min(deadline.left(), patience) : deadline.left();
        timeval wait = {time.count() / 1000, time.count() % 1000 * 1000};
        const int type = ldap_result(m_ldap.get(), id, LDAP_MSG_ONE, &wait, &message);
        if (type > 0) {
            m_answeredAt = now();
            return {};
        }
        if (type < 0) {
            int code = LDAP_SERVER_DOWN;
            ldap_get_option(m_ldap.get(), LDAP_OPT_RESULT_CODE, &code);
            const LdapStatus status = failure(code == LDAP_SUCCESS ? LDAP_SERVER_DOWN : code);
            return status.lost ? status : lost(status.code, status.text);
        }
        if (deadline.passed()) return lost(LDAP_TIMEOUT, "no answer in time");
        if (m_stillThere && !m_stillThere(deadline)) return lost(LDAP_UNAVAILABLE, "the controller hangs");
    }
}

LdapStatus Link::readEntry(LDAPMessage* message, Entry& entry) {
    berval dn{};
    BerElement* ber = nullptr;
    if (ldap_get_dn_ber(m_ldap.get(), message, &ber, &dn) != LDAP_SUCCESS)
        return lost(LDAP_DECODING_ERROR, "sent an entry that cannot be read");
    const std::unique_ptr<BerElement, FreeBer> owner(ber);
    entry.dn = text(dn);
    entry.attributes.clear();
    for (;;) {
        berval name{};
        BerVarray values = nullptr;
        if (ldap_get_attribute_ber(m_ldap.get(), message, ber, &name, &values) != LDAP_SUCCESS)
            return lost(LDAP_DECODING_ERROR, "sent an attribute that cannot be read");
        if (name.bv_val == nullptr) return {};
        const std::unique_ptr<berval, FreeMemory> ownerOfValues(values);
        Attribute attribute{text(name), {}};
        for (const berval* value = values; value != nullptr && value->bv_val != nullptr; ++value)
            attribute.values.push_back(text(*value));
        entry.attributes.push_back(std::move(attribute));
    }
}

LdapStatus Link::readEnd(LDAPMessage* message, std::string& cookie) {
    int code = LDAP_SUCCESS;
    char* more = nullptr;
    LDAPControl** controls = nullptr;
    const int parsed = ldap_parse_result(m_ldap.get(), message, &code, nullptr, &more, nullptr, &controls, 0);
    const std::unique_ptr<char, FreeMemory> ownerOfMore(more);
    const std::unique_ptr<LDAPControl*, FreeControls> ownerOfControls(controls);
    if (parsed != LDAP_SUCCESS) return lost(LDAP_DECODING_ERROR, "sent a result that cannot be read");
    if (code != LDAP_SUCCESS) {
        std::string reason = ldap_err2string(code);
        if (more != nullptr && *more != '\0') reason.append(": ").append(more);
        return meansAnother(code) ? lost(code, reason) : LdapStatus{code, reason};
    }
    cookie.clear();
    LDAPControl* page = ldap_control_find(LDAP_CONTROL_PAGEDRESULTS, controls, nullptr);
    if (page == nullptr) return {};
    ber_int_t estimate = 0;
    berval mark{};
    if (ldap_parse_pageresponse_control(m_ldap.get(), page, &estimate, &mark) != LDAP_SUCCESS)
        return lost(LDAP_DECODING_ERROR, "sent a page's mark that cannot be read");
    const std::unique_ptr<char, FreeMemory> ownerOfMark(mark.bv_val);
    if (mark.bv_val != nullptr) cookie = text(mark);
    return {};
}

LdapStatus Link::next(int id, const Deadline& deadline, Event& event, Entry& entry, std::string& cookie) {
    for (;;) {
        LDAPMessage* message = nullptr;
        if (LdapStatus status = waitFor(id, deadline, message); !status.ok()) return status;
        const Message owner(message);
        switch (ldap_msgtype(message)) {
            case LDAP_RES_SEARCH_ENTRY:
                event = Event::Entry;
                return readEntry(message, entry);
            case LDAP_RES_SEARCH_RESULT:
                event = Event::End;
                return readEnd(message, cookie);
            default:  // a referral
                break;
        }
    }
}

LdapStatus Link::readAll(Results& results, const Deadline& deadline, const Visitor& visit) {
    for (;;) {
        Entry entry;
        LdapStatus status = results.next(*this, deadline, entry);
        if (!status.ok() || results.over()) return status;
        visit(std::move(entry));
    }
}

LdapStatus Link::search(const LdapSearch& search, const Deadline& deadline, const Visitor& visit) {
    Results results(m_context, search);
    LdapStatus status = results.begin(*this);
    return status.ok() ? readAll(results, deadline, visit) : status;
}

LdapStatus Link::searchAll(const std::vector<LdapSearch>& searches, const Deadline& deadline,
                           const Visitor& visit, std::optional<LdapFailure>* missing) {
    std::deque<Results> underWay;
    std::size_t started = 0;
    for (std::size_t i = 0; i < searches.size(); ++i) {
        for (; started < searches.size() && started < i + kUnderWay; ++started) {
            underWay.emplace_back(m_context, searches[started]);
            if (LdapStatus status = underWay.back().begin(*this); !status.ok()) return status;
        }
        LdapStatus status = readAll(underWay.front(), deadline, visit);
        underWay.pop_front();
        if (isMissing(status) && missing != nullptr) *missing = failureOf(status);
        if (status.ok() || isMissing(status)) continue;
        // Answers to the others are on their way.
        m_lost = m_lost || !underWay.empty();
        return status;
    }
    return {};
}

LdapStatus Link::probe(const Deadline& deadline) {
    const LdapSearch root = {"", LDAP_SCOPE_BASE, "(objectClass=*)", {"1.1"}};
    return search(root, deadline, [](Entry&&) {});
}

}  // namespace vexagent
