// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/ldap_link.h"

#include <fcntl.h>
#include <openldap.h>
#include <sasl/sasl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>

#include "agent/ad/net/sockets.h"
#include "agent/ad/net/tls.h"

namespace vexagent {
namespace {

constexpr milliseconds kSilence{1500};  // before the controller is looked at
constexpr int kSilenceShare = 4;        // or this part of the time that is left
constexpr milliseconds kGrace{100};     // before a call that is late is ended by force
constexpr milliseconds kGoodbyeTime{200};
constexpr std::time_t kTicketReserve = 60;

struct FreeControls {
    void operator()(LDAPControl** controls) const { ldap_controls_free(controls); }
    void operator()(LDAPControl* control) const { ldap_control_free(control); }
};

struct FreeBer {
    void operator()(BerElement* ber) const { ber_free(ber, 0); }
};

using LdapText = std::unique_ptr<char, FreeMemory>;

std::string text(const berval& value) {
    return {value.bv_val, value.bv_len};
}

// What a code means, and what somebody adds to it.
std::string textOf(int code, const LdapText& more) {
    std::string reason = ldap_err2string(code);
    if (more != nullptr && *more != '\0') reason.append(": ").append(more.get());
    return reason;
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

std::string urlOf(Transport transport, const Peer& peer) {
    const bool bare = peer.host.find(':') != std::string::npos;
    const std::string scheme = transport == Transport::Ldaps ? "ldaps://" : "ldap://";
    return scheme + (bare ? "[" + peer.host + "]" : peer.host) + ":" + std::to_string(peer.port);
}

// The end of a message as the library reads it.
struct EndOfMessage {
    int code = LDAP_DECODING_ERROR;
    LdapText more{};
    std::unique_ptr<LDAPControl*, FreeControls> controls{};
};
std::optional<EndOfMessage> parseEnd(LDAP* ldap, LDAPMessage* message) {
    EndOfMessage end;
    char* more = nullptr;
    LDAPControl** controls = nullptr;
    const int parsed = ldap_parse_result(ldap, message, &end.code, nullptr, &more, nullptr, &controls, 0);
    end.more.reset(more);
    end.controls.reset(controls);
    if (parsed != LDAP_SUCCESS) return std::nullopt;
    return end;
}

// The next page's cookie; nothing for a mark that cannot be read.
std::optional<std::string> cookieIn(LDAP* ldap, const EndOfMessage& end) {
    LDAPControl* page = ldap_control_find(LDAP_CONTROL_PAGEDRESULTS, end.controls.get(), nullptr);
    if (page == nullptr) return "";
    ber_int_t estimate = 0;
    berval mark{};
    if (ldap_parse_pageresponse_control(ldap, page, &estimate, &mark) != LDAP_SUCCESS) return std::nullopt;
    const LdapText owner(mark.bv_val);
    return mark.bv_val == nullptr ? "" : text(mark);
}

}  // namespace

// ------------------------------------------------------------------- failures

LinkFailure LdapLink::lost(int code, const std::string& reason) {
    giveUp();
    return {code, peer().host + " port " + std::to_string(peer().port) + ": " + reason, true};
}

// What the library and the controller say about a failure.
std::string LdapLink::failureText(int code) {
    char* more = nullptr;
    ldap_get_option(m_ldap.get(), LDAP_OPT_DIAGNOSTIC_MESSAGE, &more);
    return textOf(code, LdapText(more));
}

LinkFailure LdapLink::failureOf(int code, const std::string& reason) {
    return meansAnother(code) ? lost(code, reason) : LinkFailure(code, reason);
}

LinkFailure LdapLink::failure(int code) {
    return failureOf(code, failureText(code));
}

// ------------------------------------------------------------------- opening

Linked<Done> LdapLink::connect(const Deadline& deadline) {
    const bool tls = m_context.options.transport != Transport::Gssapi;
    prepareLibldap(tls);
    auto socket = connectTo(peer(), deadline.atMost(kConnectTime));
    if (!socket) {
        giveUp();
        return vorn::unexpected(LinkFailure(LDAP_SERVER_DOWN, socket.error(), true));
    }
    auto taken = take(std::move(*socket));
    return taken && tls ? startTls(deadline) : taken;
}

Linked<Done> LdapLink::take(vorn::Descriptor socket) {
    // The library may close its descriptor at any time, and its number may then be
    // another's; the watchdog gets one that stays.
    m_socket = vorn::Descriptor(::fcntl(socket.get(), F_DUPFD_CLOEXEC, 0));
    if (m_socket.get() < 0) return vorn::unexpected(lost(LDAP_LOCAL_ERROR, std::strerror(errno)));
    LDAP* ldap = nullptr;
    const std::string url = urlOf(m_context.options.transport, peer());
    const int code = ldap_init_fd(socket.get(), LDAP_PROTO_TCP, url.c_str(), &ldap);
    if (code != LDAP_SUCCESS) return vorn::unexpected(lost(code, ldap_err2string(code)));
    socket.release();
    m_ldap.reset(ldap);
    const int version = LDAP_VERSION3;
    ldap_set_option(ldap, LDAP_OPT_PROTOCOL_VERSION, &version);
    ldap_set_option(ldap, LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
    ldap_set_option(ldap, LDAP_OPT_RESTART, LDAP_OPT_ON);
    return Done();
}

Linked<Done> LdapLink::startTls(const Deadline& deadline) {
    if (const auto wrong = demandTls(m_ldap.get(), m_context.tls, m_context.options.tlsCa))
        return vorn::unexpected(LinkFailure(LDAP_LOCAL_ERROR, *wrong));
    if (m_context.options.transport == Transport::StartTls)
        if (auto asked = askForTls(deadline); !asked) return asked;
    // The handshake may wait, or spin, for ever: the watchdog ends it.
    const Watchdog::Watch watch(m_context.watchdog, m_socket.get(), deadline);
    const int code = ldap_install_tls(m_ldap.get());
    if (code == LDAP_SUCCESS) return Done();
    if (deadline.passed()) return vorn::unexpected(lost(LDAP_TIMEOUT, "no answer in the TLS handshake"));
    // The library says little more than that; most often it is the certificate.
    return vorn::unexpected(
        lost(code, "no TLS, see ad.tls.ca and the controller's certificate: " + failureText(code)));
}

Linked<Done> LdapLink::askForTls(const Deadline& deadline) {
    int id = 0;
    const int code = ldap_start_tls(m_ldap.get(), nullptr, nullptr, &id);
    if (code != LDAP_SUCCESS) return vorn::unexpected(failure(code));
    const auto answer = waitFor(id, deadline);
    if (!answer) return vorn::unexpected(answer.error());
    const auto end = parseEnd(m_ldap.get(), answer->get());
    if (end && end->code == LDAP_SUCCESS) return Done();
    return vorn::unexpected(failure(end ? end->code : LDAP_DECODING_ERROR));
}

Linked<Done> LdapLink::bindWithTicket(std::time_t end, const Deadline& deadline) {
    m_end = end;
    LDAP* ldap = m_ldap.get();
    ldap_set_option(ldap, LDAP_OPT_X_SASL_NOCANON, LDAP_OPT_ON);
    // At least 56 bits: signed and sealed.
    char properties[] = "noanonymous,noplain,minssf=56,maxbufsize=16777215";
    ldap_set_option(ldap, LDAP_OPT_X_SASL_SECPROPS, properties);
    const Watchdog::Watch watch(m_context.watchdog, m_socket.get(), deadline);
    const int code = ldap_sasl_interactive_bind_s(ldap, nullptr, "GSSAPI", nullptr, nullptr, LDAP_SASL_QUIET,
                                                  answerNothing, nullptr);
    if (code == LDAP_SUCCESS) return Done();
    if (deadline.passed()) return vorn::unexpected(lost(LDAP_TIMEOUT, "no answer to the bind"));
    return vorn::unexpected(failure(code));
}

Linked<Done> LdapLink::bind(const std::string& name, const std::string& password, const Deadline& deadline) {
    // A bind with a name and no password succeeds without proving anything.
    if (name.empty() || password.empty())
        return vorn::unexpected(LinkFailure(LDAP_INVALID_CREDENTIALS, "no password"));
    // The library only reads it, but its record knows no const.
    berval secret = {password.size(), const_cast<char*>(password.data())};
    int id = 0;
    const int sent =
        ldap_sasl_bind(m_ldap.get(), name.c_str(), LDAP_SASL_SIMPLE, &secret, nullptr, nullptr, &id);
    if (sent != LDAP_SUCCESS) return vorn::unexpected(failure(sent));
    return waitForResult(id, LDAP_RES_BIND, deadline);
}

// Good only when the answer to this operation, and no other message, says so.
Linked<Done> LdapLink::waitForResult(int id, int type, const Deadline& deadline) {
    const auto answer = waitFor(id, deadline);
    if (!answer) return vorn::unexpected(answer.error());
    const auto end =
        ldap_msgtype(answer->get()) == type ? parseEnd(m_ldap.get(), answer->get()) : std::nullopt;
    if (end && end->code == LDAP_SUCCESS) return Done();
    LinkFailure refusal = failure(end ? end->code : LDAP_DECODING_ERROR);
    if (end && end->more != nullptr && *end->more != '\0') refusal.text = textOf(end->code, end->more);
    return vorn::unexpected(refusal);
}

class BindProof {
  public:
    static Accepted make() { return Accepted(); }
};

Expected<Accepted, LdapFailure> LdapLink::checkPassword(const std::string& dn, const std::string& password,
                                                        const Deadline& deadline) {
    // Whatever a controller makes of a NUL, the part before it is not the password.
    if (password.find('\0') != std::string::npos)
        return vorn::unexpected(LdapFailure(LDAP_INVALID_CREDENTIALS, "a password with a NUL"));
    const auto bound = bind(dn, password, deadline);
    if (!bound) return vorn::unexpected(LdapFailure(bound.error()));
    return BindProof::make();
}

Expected<Done, LdapFailure> LdapLink::changePassword(const std::string& dn, const vorn::Secret& from,
                                                     const vorn::Secret& to, const Deadline& deadline) {
    // The library only reads all of it, but its records know no const.
    char attribute[] = "unicodePwd";
    berval values[] = {{from.size(), const_cast<char*>(from.text().data())},
                       {to.size(), const_cast<char*>(to.text().data())}};
    berval* removed[] = {&values[0], nullptr};
    berval* added[] = {&values[1], nullptr};
    LDAPMod remove{LDAP_MOD_DELETE | LDAP_MOD_BVALUES, attribute, {}};
    LDAPMod add{LDAP_MOD_ADD | LDAP_MOD_BVALUES, attribute, {}};
    remove.mod_bvalues = removed;
    add.mod_bvalues = added;
    LDAPMod* changes[] = {&remove, &add, nullptr};
    int id = 0;
    const int sent = ldap_modify_ext(m_ldap.get(), dn.c_str(), changes, nullptr, nullptr, &id);
    if (sent != LDAP_SUCCESS) return vorn::unexpected(LdapFailure(failure(sent)));
    return outside(waitForResult(id, LDAP_RES_MODIFY, deadline));
}

LdapLink::~LdapLink() {
    if (!m_ldap) return;
    // What is said at parting is not waited for.
    const Watchdog::Watch watch(m_context.watchdog, m_socket.get(), Deadline(m_context.clock, kGoodbyeTime));
    m_ldap.reset();
}

bool LdapLink::looksUsable() const {
    const bool valid = m_end == 0 || m_context.options.clock() + kTicketReserve < m_end;
    return !isLost() && valid && !isDisturbed(m_socket.get());
}

// ------------------------------------------------------------------ searches

Linked<int> LdapLink::start(const LdapSearch& search, const std::string& cookie, int pageSize) {
    LDAP* ldap = m_ldap.get();
    berval mark = {cookie.size(), const_cast<char*>(cookie.data())};
    LDAPControl* page = nullptr;
    int code = LDAP_SUCCESS;
    if (pageSize > 0)
        code = ldap_create_page_control(ldap, pageSize, cookie.empty() ? nullptr : &mark, 1, &page);
    if (code != LDAP_SUCCESS) return vorn::unexpected(failure(code));
    const std::unique_ptr<LDAPControl, FreeControls> owner(page);
    // Referrals are not followed, so none need be sent.
    LDAPControl domainScope = {const_cast<char*>("1.2.840.113556.1.4.1339"), {0, nullptr}, 0};
    LDAPControl* controls[] = {&domainScope, page, nullptr};
    std::vector<char*> names;
    for (const std::string& name : search.attributes) names.push_back(const_cast<char*>(name.c_str()));
    names.push_back(nullptr);
    const Watchdog::Watch watch(m_context.watchdog, m_socket.get(),
                                Deadline(m_context.clock, m_context.options.timeout));
    int id = 0;
    code = ldap_search_ext(ldap, search.base.c_str(), search.scope, search.filter.c_str(),
                           search.attributes.empty() ? nullptr : names.data(), 0, controls, nullptr, nullptr,
                           LDAP_NO_LIMIT, &id);
    if (code != LDAP_SUCCESS) return vorn::unexpected(failure(code));
    return id;
}

Linked<LdapMessage> LdapLink::waitFor(int id, const Deadline& deadline) {
    const Watchdog::Watch watch(m_context.watchdog, m_socket.get(), deadline.end() + kGrace);
    const milliseconds patience = deadline.share(kSilence, kSilenceShare);
    for (;;) {
        const milliseconds time = stillThere() ? std::min(deadline.left(), patience) : deadline.left();
        timeval wait = {time.count() / 1000, time.count() % 1000 * 1000};
        LDAPMessage* message = nullptr;
        const int type = ldap_result(m_ldap.get(), id, LDAP_MSG_ONE, &wait, &message);
        if (type > 0) {
            noteAnswerNow();
            return LdapMessage(message);
        }
        if (type < 0) {
            int code = LDAP_SERVER_DOWN;
            ldap_get_option(m_ldap.get(), LDAP_OPT_RESULT_CODE, &code);
            LinkFailure end = failure(code == LDAP_SUCCESS ? LDAP_SERVER_DOWN : code);
            return vorn::unexpected(end.lost ? end : lost(end.code, end.text));
        }
        if (deadline.passed()) return vorn::unexpected(lost(LDAP_TIMEOUT, "no answer in time"));
        if (stillThere() && !stillThere()(deadline))
            return vorn::unexpected(lost(LDAP_UNAVAILABLE, "the controller hangs"));
    }
}

Linked<Link::Event> LdapLink::readEntry(LDAPMessage* message) {
    berval dn{};
    BerElement* ber = nullptr;
    if (ldap_get_dn_ber(m_ldap.get(), message, &ber, &dn) != LDAP_SUCCESS)
        return vorn::unexpected(lost(LDAP_DECODING_ERROR, "sent an entry that cannot be read"));
    const std::unique_ptr<BerElement, FreeBer> owner(ber);
    Entry entry{text(dn), {}};
    for (;;) {
        berval name{};
        BerVarray values = nullptr;
        if (ldap_get_attribute_ber(m_ldap.get(), message, ber, &name, &values) != LDAP_SUCCESS)
            return vorn::unexpected(lost(LDAP_DECODING_ERROR, "sent an attribute that cannot be read"));
        if (name.bv_val == nullptr) return Event(std::move(entry));
        const std::unique_ptr<berval, FreeMemory> ownerOfValues(values);
        Attribute attribute{text(name), {}};
        for (const berval* value = values; value != nullptr && value->bv_val != nullptr; ++value)
            attribute.values.push_back(text(*value));
        entry.attributes.push_back(std::move(attribute));
    }
}

Linked<Link::Event> LdapLink::readEnd(LDAPMessage* message) {
    const auto end = parseEnd(m_ldap.get(), message);
    if (!end) return vorn::unexpected(lost(LDAP_DECODING_ERROR, "sent a result that cannot be read"));
    if (end->code != LDAP_SUCCESS)
        return vorn::unexpected(failureOf(end->code, textOf(end->code, end->more)));
    const auto cookie = cookieIn(m_ldap.get(), *end);
    if (!cookie) return vorn::unexpected(lost(LDAP_DECODING_ERROR, "sent a page's mark that cannot be read"));
    return Event(PageEnd{*cookie});
}

Linked<Link::Event> LdapLink::next(int id, const Deadline& deadline) {
    for (;;) {
        const auto message = waitFor(id, deadline);
        if (!message) return vorn::unexpected(message.error());
        const int type = ldap_msgtype(message->get());
        if (type == LDAP_RES_SEARCH_ENTRY) return readEntry(message->get());
        if (type == LDAP_RES_SEARCH_RESULT) return readEnd(message->get());
        // A referral: the next message.
    }
}

}  // namespace vexagent
