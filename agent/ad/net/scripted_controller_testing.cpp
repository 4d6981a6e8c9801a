// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/scripted_controller_testing.h"

#include <gnutls/gnutls.h>
#include <gnutls/x509.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <stdexcept>

namespace vexagent {
namespace {

constexpr char kStartTls[] = "1.3.6.1.4.1.1466.20037";
constexpr char kDomainScope[] = "1.2.840.113556.1.4.1339";

void must(bool holds, const char* what) {
    if (!holds) throw std::runtime_error(what);
}

struct FreeBer {
    void operator()(BerElement* ber) const { ber_free(ber, 1); }
};
using Ber = std::unique_ptr<BerElement, FreeBer>;

std::string textOf(const berval& value) {
    return value.bv_val == nullptr ? std::string() : std::string(value.bv_val, value.bv_len);
}

berval valueOf(const std::string& text) {
    return {text.size(), const_cast<char*>(text.data())};
}

std::string finished(const Ber& ber) {
    berval whole{};
    must(ber_flatten2(ber.get(), &whole, 0) == 0, "a message cannot be made");
    return textOf(whole);
}

// ------------------------------------------------------------------ certificates

struct Certificate {
    Certificate() {
        gnutls_x509_privkey_init(&key);
        gnutls_x509_crt_init(&crt);
        must(gnutls_x509_privkey_generate(key, GNUTLS_PK_ECDSA,
                                          GNUTLS_CURVE_TO_BITS(GNUTLS_ECC_CURVE_SECP256R1), 0) == 0,
             "no key");
        gnutls_x509_crt_set_version(crt, 3);
        gnutls_x509_crt_set_serial(crt, "\x01", 1);
        gnutls_x509_crt_set_activation_time(crt, std::time(nullptr) - 3600);
        gnutls_x509_crt_set_expiration_time(crt, std::time(nullptr) + 86'400);
        gnutls_x509_crt_set_dn(crt, "CN=A controller", nullptr);
        gnutls_x509_crt_set_subject_alt_name(crt, GNUTLS_SAN_IPADDRESS, "\x7F\0\0\x01", 4, GNUTLS_FSAN_SET);
        gnutls_x509_crt_set_ca_status(crt, 1);
        gnutls_x509_crt_set_key(crt, key);
        must(gnutls_x509_crt_sign2(crt, crt, key, GNUTLS_DIG_SHA256, 0) == 0, "no certificate");
    }
    ~Certificate() {
        gnutls_x509_crt_deinit(crt);
        gnutls_x509_privkey_deinit(key);
    }
    Certificate(const Certificate&) = delete;
    Certificate& operator=(const Certificate&) = delete;

    std::string pem() const {
        gnutls_datum_t text{};
        must(gnutls_x509_crt_export2(crt, GNUTLS_X509_FMT_PEM, &text) == 0, "no PEM");
        std::string pem(reinterpret_cast<const char*>(text.data), text.size);
        gnutls_free(text.data);
        return pem;
    }

    gnutls_x509_privkey_t key = nullptr;
    gnutls_x509_crt_t crt = nullptr;
};

// ---------------------------------------------------------------------- messages

std::string readFilter(BerElement* ber);

std::string readFilters(BerElement* ber, char sign) {
    std::string text = std::string("(") + sign;
    ber_len_t length = 0;
    char* end = nullptr;
    for (ber_tag_t tag = ber_first_element(ber, &length, &end); tag != LBER_DEFAULT;
         tag = ber_next_element(ber, &length, end))
        text += readFilter(ber);
    return text + ")";
}

// As RFC 4515 has it, without escapes; what no test asks for is "(?)".
std::string readFilter(BerElement* ber) {
    ber_len_t length = 0;
    const ber_tag_t tag = ber_peek_tag(ber, &length);
    berval name{};
    berval value{};
    switch (tag) {
        case LDAP_FILTER_PRESENT:
            ber_scanf(ber, "m", &name);
            return "(" + textOf(name) + "=*)";
        case LDAP_FILTER_EQUALITY:
            ber_scanf(ber, "{mm}", &name, &value);
            return "(" + textOf(name) + "=" + textOf(value) + ")";
        case LDAP_FILTER_AND:
            return readFilters(ber, '&');
        case LDAP_FILTER_OR:
            return readFilters(ber, '|');
        default:
            ber_skip_element(ber, &value);
            return "(?)";
    }
}

void readSearch(BerElement* ber, Asked& asked) {
    berval base{};
    int aliases = 0;
    int size = 0;
    int time = 0;
    int typesOnly = 0;
    must(ber_scanf(ber, "{meeiib", &base, &asked.scope, &aliases, &size, &time, &typesOnly) != LBER_ERROR,
         "no search");
    asked.base = textOf(base);
    asked.filter = readFilter(ber);
    char** names = nullptr;
    must(ber_scanf(ber, "{v}}", &names) != LBER_ERROR, "no attributes");
    for (char** name = names; name != nullptr && *name != nullptr; ++name)
        asked.attributes.emplace_back(*name);
    ber_memvfree(reinterpret_cast<void**>(names));
}

void readBind(BerElement* ber, Asked& asked) {
    int version = 0;
    berval name{};
    berval password{};
    must(ber_scanf(ber, "{im", &version, &name) != LBER_ERROR, "no bind");
    asked.name = textOf(name);
    ber_len_t length = 0;
    if (ber_peek_tag(ber, &length) == LDAP_AUTH_SIMPLE) ber_scanf(ber, "m}", &password);
    asked.password = textOf(password);
}

void readPage(const berval& value, Asked& asked) {
    const Ber ber(ber_init(const_cast<berval*>(&value)));
    berval cookie{};
    must(ber_scanf(ber.get(), "{im}", &asked.pageSize, &cookie) != LBER_ERROR, "no page");
    asked.cookie = textOf(cookie);
}

void readControls(BerElement* ber, Asked& asked) {
    ber_len_t length = 0;
    if (ber_peek_tag(ber, &length) != LDAP_TAG_CONTROLS) return;
    char* end = nullptr;
    for (ber_tag_t tag = ber_first_element(ber, &length, &end); tag != LBER_DEFAULT;
         tag = ber_next_element(ber, &length, end)) {
        berval oid{};
        berval value{};
        int critical = 0;
        ber_scanf(ber, "{m", &oid);
        if (ber_peek_tag(ber, &length) == LBER_BOOLEAN) ber_scanf(ber, "b", &critical);
        if (ber_peek_tag(ber, &length) == LBER_OCTETSTRING) ber_scanf(ber, "m", &value);
        ber_scanf(ber, "}");
        if (textOf(oid) == kDomainScope) asked.domainScope = true;
        if (textOf(oid) == LDAP_CONTROL_PAGEDRESULTS) readPage(value, asked);
    }
}

Asked readMessage(const std::string& message) {
    berval whole = valueOf(message);
    const Ber ber(ber_init(&whole));
    Asked asked;
    ber_tag_t tag = 0;
    must(ber_scanf(ber.get(), "{it", &asked.id, &tag) != LBER_ERROR, "no message");
    berval oid{};
    switch (tag) {
        case LDAP_REQ_BIND:
            asked.kind = Asked::Kind::Bind;
            readBind(ber.get(), asked);
            break;
        case LDAP_REQ_SEARCH:
            asked.kind = Asked::Kind::Search;
            readSearch(ber.get(), asked);
            readControls(ber.get(), asked);
            break;
        case LDAP_REQ_UNBIND:
            asked.kind = Asked::Kind::Unbind;
            break;
        case LDAP_REQ_EXTENDED:
            ber_scanf(ber.get(), "{m", &oid);
            if (textOf(oid) == kStartTls) asked.kind = Asked::Kind::StartTls;
            break;
        default:
            break;
    }
    return asked;
}

}  // namespace

// -------------------------------------------------------------------------- Talk

Talk::~Talk() {
    if (m_tls != nullptr) gnutls_deinit(m_tls);
}

bool Talk::secure(gnutls_certificate_credentials_t credentials, const std::string& priorities) {
    gnutls_init(&m_tls, GNUTLS_SERVER | GNUTLS_NO_SIGNAL);
    must(gnutls_priority_set_direct(m_tls, priorities.c_str(), nullptr) == 0, "no such TLS");
    gnutls_credentials_set(m_tls, GNUTLS_CRD_CERTIFICATE, credentials);
    gnutls_transport_set_int(m_tls, m_socket);
    int code = GNUTLS_E_AGAIN;
    while (code < 0 && gnutls_error_is_fatal(code) == 0) code = gnutls_handshake(m_tls);
    return code == GNUTLS_E_SUCCESS;
}

void Talk::bytes(std::string_view bytes) {
    if (m_tls != nullptr)
        gnutls_record_send(m_tls, bytes.data(), bytes.size());
    else
        static_cast<void>(!::send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL));
}

bool Talk::receive(std::string& message, std::size_t size) {
    for (std::size_t have = message.size(); have < size;) {
        message.resize(size);
        const ssize_t got = m_tls != nullptr ? gnutls_record_recv(m_tls, message.data() + have, size - have)
                                             : ::recv(m_socket, message.data() + have, size - have, 0);
        message.resize(have += static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        if (got <= 0) return false;
    }
    return true;
}

std::string Talk::read() {
    std::string message;
    if (!receive(message, 2)) return {};
    std::size_t length = static_cast<unsigned char>(message[1]);
    if (length >= 0x80) {
        const std::size_t bytes = length & 0x7F;
        if (bytes > 3 || !receive(message, 2 + bytes)) return {};
        length = 0;
        for (std::size_t i = 0; i < bytes; ++i)
            length = length << 8 | static_cast<unsigned char>(message[2 + i]);
    }
    return receive(message, message.size() + length) ? message : std::string();
}

void Talk::entry(int id, const std::string& dn, const std::vector<Attribute>& attributes) {
    const Ber ber(ber_alloc_t(LBER_USE_DER));
    berval name = valueOf(dn);
    ber_printf(ber.get(), "{it{O{", id, LDAP_RES_SEARCH_ENTRY, &name);
    for (const Attribute& attribute : attributes) {
        ber_printf(ber.get(), "{s[", attribute.name.c_str());
        for (const std::string& text : attribute.values) {
            berval value = valueOf(text);
            ber_printf(ber.get(), "O", &value);
        }
        ber_printf(ber.get(), "]}");
    }
    ber_printf(ber.get(), "}}}");
    bytes(finished(ber));
}

void Talk::reference(int id, const std::string& url) {
    const Ber ber(ber_alloc_t(LBER_USE_DER));
    ber_printf(ber.get(), "{it{s}}", id, LDAP_RES_SEARCH_REFERENCE, url.c_str());
    bytes(finished(ber));
}

void Talk::result(ber_tag_t tag, int id, int code, const std::string& text) {
    m_lastCode = code;
    const Ber ber(ber_alloc_t(LBER_USE_DER));
    ber_printf(ber.get(), "{it{ess}}", id, tag, code, "", text.c_str());
    bytes(finished(ber));
}

void Talk::done(int id, int code, const std::string& text) {
    result(LDAP_RES_SEARCH_RESULT, id, code, text);
}

void Talk::page(int id, const std::string& cookie) {
    const Ber value(ber_alloc_t(LBER_USE_DER));
    berval mark = valueOf(cookie);
    ber_printf(value.get(), "{iO}", 0, &mark);
    const std::string text = finished(value);
    berval control = valueOf(text);
    const Ber ber(ber_alloc_t(LBER_USE_DER));
    ber_printf(ber.get(), "{it{ess}t{{sO}}}", id, LDAP_RES_SEARCH_RESULT, LDAP_SUCCESS, "", "",
               LDAP_TAG_CONTROLS, LDAP_CONTROL_PAGEDRESULTS, &control);
    bytes(finished(ber));
}

AdOptions serviceAccount(const vorn::test::TemporaryFolder& folder) {
    AdOptions options;
    options.domain = "example.com";
    options.transport = Transport::Ldaps;
    options.account.bindName = "CN=gateway,DC=example,DC=com";
    options.account.bindPasswordFile = folder.write("password", "secret\n");
    ::chmod(options.account.bindPasswordFile.c_str(), 0600);
    return options;
}

// ------------------------------------------------------------ ScriptedController

ScriptedController::ScriptedController(Tls tls, std::string priorities)
    : m_tls(tls), m_priorities(std::move(priorities)) {
    static const Certificate certificate;
    must(gnutls_certificate_allocate_credentials(&m_credentials) == 0, "no credentials");
    gnutls_x509_crt_t chain[] = {certificate.crt};
    must(gnutls_certificate_set_x509_key(m_credentials, chain, 1, certificate.key) == 0, "no certificate");
    m_folder.write("ca.pem", certificate.pem());

    m_listener = vorn::Descriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    must(::bind(m_listener.get(), reinterpret_cast<sockaddr*>(&address), size) == 0, "no port");
    must(::listen(m_listener.get(), 16) == 0, "cannot listen");
    must(::getsockname(m_listener.get(), reinterpret_cast<sockaddr*>(&address), &size) == 0, "no address");
    m_port = ntohs(address.sin_port);
    m_acceptor = std::thread([this] { accept(); });
}

ScriptedController::~ScriptedController() {
    ::shutdown(m_listener.get(), SHUT_RDWR);
    m_acceptor.join();
    for (const vorn::Descriptor& socket : m_sockets) ::shutdown(socket.get(), SHUT_RDWR);
    for (std::thread& thread : m_threads) thread.join();
    gnutls_certificate_free_credentials(m_credentials);
}

std::string ScriptedController::authorityFile() const {
    return m_folder.file("ca.pem");
}

void ScriptedController::answer(Answer answer) {
    const std::lock_guard lock(m_mutex);
    m_answer = std::move(answer);
}

std::vector<Asked> ScriptedController::asked() const {
    const std::lock_guard lock(m_mutex);
    return m_asked;
}

std::size_t ScriptedController::count(Asked::Kind kind) const {
    const std::vector<Asked> all = asked();
    return static_cast<std::size_t>(
        std::count_if(all.begin(), all.end(), [kind](const Asked& one) { return one.kind == kind; }));
}

void ScriptedController::hang(Talk& talk) const {
    while (!talk.read().empty()) continue;
}

void ScriptedController::accept() {
    for (;;) {
        const int socket = ::accept4(m_listener.get(), nullptr, nullptr, SOCK_CLOEXEC);
        if (socket < 0) return;
        const int on = 1;
        ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        const std::lock_guard lock(m_mutex);
        m_sockets.emplace_back(socket);
        m_threads.emplace_back([this, socket] {
            serve(socket);
            ::shutdown(socket, SHUT_RDWR);  // closed at the end, so that its number stays its own
        });
    }
}

// A client that talks something else than LDAP is left.
void ScriptedController::serve(int socket) try {
    Talk talk(socket);
    if (m_tls == Tls::Silent) return hang(talk);
    if (m_tls == Tls::FromTheStart && !talk.secure(m_credentials, m_priorities)) return;
    for (std::string message = talk.read(); !message.empty(); message = talk.read()) {
        Asked asked = readMessage(message);
        asked.tls = talk.isSecure();
        Answer answer;
        {
            const std::lock_guard lock(m_mutex);
            m_asked.push_back(asked);
            answer = m_answer;
        }
        if (asked.kind == Asked::Kind::Unbind) return;
        if (!answer || !answer(asked, talk)) usualAnswer(asked, talk);
        if (asked.kind == Asked::Kind::StartTls && talk.lastCode() == LDAP_SUCCESS &&
            !talk.secure(m_credentials, m_priorities))
            return;
    }
} catch (const std::runtime_error&) {
}

void ScriptedController::usualAnswer(const Asked& asked, Talk& talk) const {
    switch (asked.kind) {
        case Asked::Kind::Bind:
            return talk.result(LDAP_RES_BIND, asked.id, LDAP_SUCCESS);
        case Asked::Kind::StartTls:
            return talk.result(LDAP_RES_EXTENDED, asked.id, LDAP_SUCCESS);
        case Asked::Kind::Search:
            if (asked.base.empty()) talk.entry(asked.id, "", {});
            return talk.done(asked.id);
        default:
            return;
    }
}

}  // namespace vexagent
