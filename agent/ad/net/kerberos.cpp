#include "agent/ad/net/kerberos.h"

#include <profile.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <new>

#include "agent/ad/net/sockets.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

constexpr std::uint16_t kKdcPort = 88;
constexpr std::size_t kLargestReply = std::size_t{1} << 20;
constexpr int kMostSteps = 10;
constexpr milliseconds kConnectTime{1000};
constexpr milliseconds kPatience{2000};  // with one controller while there is another
constexpr int kPatienceShare = 2;        // or this part of the time that is left
constexpr char kErrorTag = 0x7e;         // a reply that is a KRB-ERROR begins so

// What the library would read from krb5.conf.
struct Relation {
    const char* name;
    const char* value;
};
constexpr std::array<Relation, 6> kRelations = {{{"dns_lookup_kdc", "false"},
                                                 {"dns_lookup_realm", "false"},
                                                 {"dns_canonicalize_hostname", "false"},
                                                 {"dns_uri_lookup", "false"},
                                                 {"rdns", "false"},
                                                 {"default_rcache_name", "none:"}}};

// Gives one value the way the library wants it; it frees it with freeValues.
long giveValue(const std::string& value, char*** values) {
    auto** list = static_cast<char**>(std::calloc(2, sizeof(char*)));
    if (list == nullptr) return ENOMEM;
    list[0] = ::strdup(value.c_str());
    if (list[0] == nullptr) {
        std::free(list);
        return ENOMEM;
    }
    *values = list;
    return 0;
}

void freeValues(void*, char** values) {
    if (values == nullptr) return;
    for (char** value = values; *value != nullptr; ++value) std::free(*value);
    std::free(values);
}

long findValue(const std::string& domain, const char* const* names, char*** values) {
    if (names[0] == nullptr || names[1] == nullptr) return PROF_NO_RELATION;
    const std::string_view section = names[0];
    // The library hands over a message only for a realm that has a KDC. Whatever its
    // name, nobody looks it up.
    if (section == "realms" && names[2] != nullptr && std::string_view(names[2]) == "kdc")
        return giveValue("none.invalid", values);
    if (names[2] != nullptr) return PROF_NO_RELATION;
    const std::string_view name = names[1];
    if (section == "domain_realm" && (name == domain || name == "." + domain))
        return giveValue(realmOf(domain), values);
    if (section != "libdefaults") return PROF_NO_RELATION;
    if (name == "default_realm") return giveValue(realmOf(domain), values);
    for (const Relation& relation : kRelations)
        if (name == relation.name) return giveValue(relation.value, values);
    return PROF_NO_RELATION;
}

// The library copies profiles, so each has the domain's name for itself.
long getValues(void* data, const char* const* names, char*** values) {
    try {
        return findValue(*static_cast<const std::string*>(data), names, values);
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}
void cleanUp(void* data) {
    delete static_cast<std::string*>(data);
}
long copyProfile(void* data, void** copy) {
    *copy = new (std::nothrow) std::string(*static_cast<const std::string*>(data));
    return *copy == nullptr ? ENOMEM : 0;
}

krb5_context newContext(const std::string& domain) {
    profile_vtable table{};
    table.minor_ver = 1;
    table.get_values = getValues;
    table.free_values = freeValues;
    table.cleanup = cleanUp;
    table.copy = copyProfile;
    profile_t profile = nullptr;
    auto data = std::make_unique<std::string>(vorn::lower(domain));
    if (profile_init_vtable(&table, data.get(), &profile) != 0) throw std::bad_alloc();
    static_cast<void>(data.release());  // the profile frees it
    krb5_context context = nullptr;
    const krb5_error_code code = krb5_init_context_profile(profile, KRB5_INIT_CONTEXT_SECURE, &context);
    profile_release(profile);  // the context has a copy
    if (code != 0) throw std::bad_alloc();
    return context;
}

// A reply in the form that the library frees.
krb5_data* newData(std::string_view bytes) {
    auto* data = static_cast<krb5_data*>(std::calloc(1, sizeof(krb5_data)));
    auto* copy = static_cast<char*>(std::malloc(bytes.size() + 1));
    if (data == nullptr || copy == nullptr) {
        std::free(data);
        std::free(copy);
        return nullptr;
    }
    bytes.copy(copy, bytes.size());
    data->magic = KV5M_DATA;
    data->length = static_cast<unsigned>(bytes.size());
    data->data = copy;
    return data;
}

// Stands in for the library's network wherever it would use it by itself.
krb5_error_code carry(krb5_context, void* kdc, const krb5_data* realm, const krb5_data* message, krb5_data**,
                      krb5_data** reply) {
    try {
        std::string bytes;
        const KrbStatus status = static_cast<KdcConversation*>(kdc)->exchange(
            std::string(realm->data, realm->length), {message->data, message->length}, true, bytes);
        if (!status.ok()) return status.code;
        *reply = newData(bytes);
        return *reply == nullptr ? ENOMEM : 0;
    } catch (...) {
        return ENOMEM;
    }
}

// The KDC's error code in a reply; 0 when it is no error.
krb5_error_code errorIn(krb5_context context, std::string& reply) {
    if (reply.empty() || reply[0] != kErrorTag) return 0;
    const krb5_data data = {KV5M_DATA, static_cast<unsigned>(reply.size()), reply.data()};
    krb5_error* error = nullptr;
    if (krb5_rd_error(context, &data, &error) != 0) return 0;
    const krb5_error_code code = static_cast<krb5_error_code>(error->error + ERROR_TABLE_BASE_krb5);
    krb5_free_error(context, error);
    return code;
}

}  // namespace

std::string realmOf(const std::string& domain) {
    return vorn::upper(domain);
}

std::string krb5Settings(const std::string& domain) {
    std::string text = "[libdefaults]\n default_realm = " + realmOf(domain) + "\n";
    for (const Relation& relation : kRelations)
        text.append(" ").append(relation.name).append(" = ").append(relation.value).append("\n");
    const std::string name = vorn::lower(domain);
    return text + "[domain_realm]\n ." + name + " = " + realmOf(domain) + "\n " + name + " = " +
           realmOf(domain) + "\n";
}

// ------------------------------------------------------------- conversation

KrbStatus KdcConversation::ask(const std::string& host, std::string_view message, const Deadline& deadline,
                               std::string& reply, bool& sent) const {
    std::string reason;
    const vorn::Descriptor socket = connectTo({host, kKdcPort}, deadline.atMost(kConnectTime), reason);
    if (socket.get() < 0) return {KRB5_KDC_UNREACH, reason};
    sent = true;
    std::string frame;
    for (int shift = 24; shift >= 0; shift -= 8)
        frame.push_back(static_cast<char>(message.size() >> shift & 0xff));
    frame.append(message);
    std::string header;
    if (!writeAll(socket.get(), frame, deadline) || !readExactly(socket.get(), 4, header, deadline))
        return {KRB5_KDC_UNREACH, host + " port 88: no answer"};
    std::size_t size = 0;
    for (const char byte : header) size = size << 8 | static_cast<unsigned char>(byte);
    if (size == 0 || size > kLargestReply || !readExactly(socket.get(), size, reply, deadline))
        return {KRB5_KDC_UNREACH, host + " port 88: no whole answer"};
    return {};
}

KrbStatus KdcConversation::exchange(const std::string& realm, std::string_view message, bool repeatable,
                                    std::string& reply) {
    Controllers* controllers = m_controllersOf(realm);
    if (controllers == nullptr) return {KRB5_REALM_UNKNOWN, "no controllers of the realm " + realm};
    std::vector<Controllers::Choice> choices = controllers->order(now());
    std::stable_partition(choices.begin(), choices.end(), [&](const Controllers::Choice& choice) {
        return realm == m_realm && choice.peer == m_peer;
    });
    const auto barred = [this](const Controllers::Choice& choice) {
        return m_admits && !m_admits(choice.peer);
    };
    if (std::erase_if(choices, barred) != 0 && choices.empty())
        return {KRB5_KDC_UNREACH, "the domain refuses the machine's key; it is tried again later", true};
    KrbStatus status = {KRB5_KDC_UNREACH, "no controller of the realm " + realm + " is known"};
    for (std::size_t i = 0; i < choices.size() && !m_deadline.passed(); ++i) {
        const bool last = i + 1 == choices.size() || !repeatable;
        bool sent = false;
        const Deadline until =
            last ? m_deadline : m_deadline.atMost(m_deadline.share(kPatience, kPatienceShare));
        status = ask(choices[i].peer.host, message, until, reply, sent);
        if (status.ok()) {
            m_realm = realm;
            m_peer = choices[i].peer;
            return status;
        }
        // One that had less time than it might need is at fault only if it says nothing at all.
        const bool hurried = until.passed() && m_deadline.left() < kPatience;
        controllers->failed(choices[i].peer, now(), status.text,
                            hurried ? std::optional(m_deadline.begin()) : std::nullopt);
        if (sent && !repeatable) return status;
    }
    return status;
}

// ------------------------------------------------------------------ library

Kerberos::Kerberos(const std::string& domain, KdcConversation& kdc)
    : m_kdc(kdc), m_context(newContext(domain)) {
    krb5_set_kdc_send_hook(m_context.get(), carry, &m_kdc);
}

KrbStatus Kerberos::status(krb5_error_code code) const {
    if (code == 0) return {};
    const char* message = krb5_get_error_message(m_context.get(), code);
    KrbStatus status = {code, message != nullptr ? message : "unknown error"};
    krb5_free_error_message(m_context.get(), message);
    return status;
}

KrbStatus Kerberos::steps(krb5_init_creds_context context) {
    std::string reply;
    m_convincing = false;
    m_message.clear();
    for (int step = 0; step < kMostSteps; ++step) {
        krb5_data in = {KV5M_DATA, static_cast<unsigned>(reply.size()), reply.data()};
        krb5_data out{};
        krb5_data realm{};
        unsigned flags = 0;
        const krb5_error_code code = krb5_init_creds_step(get(), context, &in, &out, &realm, &flags);
        const bool more = code == 0 && (flags & KRB5_INIT_CREDS_STEP_FLAG_CONTINUE) != 0;
        if (more) {
            m_message.assign(out.data, out.length);
            m_realm.assign(realm.data, realm.length);
        }
        krb5_free_data_contents(get(), &out);
        krb5_free_data_contents(get(), &realm);
        if (!more) return status(code);
        if (KrbStatus sent = m_kdc.exchange(m_realm, m_message, !m_convincing, reply); !sent.ok()) {
            m_message.clear();
            return sent;
        }
        const krb5_error_code error = errorIn(get(), reply);
        // The library would go on to another way of showing the same password.
        if (m_convincing && error == KRB5KDC_ERR_PREAUTH_FAILED) return status(error);
        if (error == KRB5KDC_ERR_PREAUTH_REQUIRED) m_convincing = true;
    }
    return {KRB5_KDCREP_MODIFIED, "the controller asks without end"};
}

KrbStatus Kerberos::firstCredentials(krb5_principal client, const Prepare& prepare, krb5_creds& credentials) {
    krb5_get_init_creds_opt* options = nullptr;
    if (krb5_get_init_creds_opt_alloc(get(), &options) != 0) throw std::bad_alloc();
    const auto freeOptions = [this](krb5_get_init_creds_opt* value) {
        krb5_get_init_creds_opt_free(get(), value);
    };
    const std::unique_ptr<krb5_get_init_creds_opt, decltype(freeOptions)> owner(options, freeOptions);
    krb5_get_init_creds_opt_set_forwardable(options, 0);
    krb5_get_init_creds_opt_set_proxiable(options, 0);

    krb5_init_creds_context context = nullptr;
    krb5_error_code code = krb5_init_creds_init(get(), client, nullptr, nullptr, 0, options, &context);
    if (code != 0) return status(code);
    const auto freeCreds = [this](krb5_init_creds_context value) { krb5_init_creds_free(get(), value); };
    const std::unique_ptr<std::remove_pointer_t<krb5_init_creds_context>, decltype(freeCreds)> creds(
        context, freeCreds);
    code = prepare(context);
    if (code != 0) return status(code);
    if (KrbStatus done = steps(context); !done.ok()) return done;
    return status(krb5_init_creds_get_creds(get(), context, &credentials));
}

void Kerberos::levelRefusal(const std::string& password) {
    if (m_convincing || m_message.empty()) return;
    krb5_data text = {KV5M_DATA, static_cast<unsigned>(password.size()), const_cast<char*>(password.data())};
    krb5_data salt = {KV5M_DATA, static_cast<unsigned>(m_realm.size()), m_realm.data()};
    krb5_keyblock key{};
    if (krb5_c_string_to_key(get(), ENCTYPE_AES256_CTS_HMAC_SHA1_96, &text, &salt, &key) == 0)
        krb5_free_keyblock_contents(get(), &key);
    std::string reply;
    m_kdc.exchange(m_realm, m_message, true, reply);
}

// ------------------------------------------------------------------- keytab

KrbKeytab::KrbKeytab(const Kerberos& kerberos, const std::string& file) : m_context(kerberos.get()) {
    m_status = kerberos.status(krb5_kt_resolve(m_context, ("FILE:" + file).c_str(), &m_keytab));
    if (m_status.ok()) m_status = kerberos.status(krb5_kt_have_content(m_context, m_keytab));
    if (!m_status.ok()) m_status.text = "keytab " + file + ": " + m_status.text;
}

krb5_principal KrbKeytab::find(const std::function<bool(krb5_const_principal)>& fits) const {
    krb5_kt_cursor cursor{};
    if (krb5_kt_start_seq_get(m_context, m_keytab, &cursor) != 0) return nullptr;
    krb5_principal found = nullptr;
    krb5_keytab_entry entry{};
    while (found == nullptr && krb5_kt_next_entry(m_context, m_keytab, &entry, &cursor) == 0) {
        if (fits(entry.principal)) krb5_copy_principal(m_context, entry.principal, &found);
        krb5_free_keytab_entry_contents(m_context, &entry);
    }
    krb5_kt_end_seq_get(m_context, m_keytab, &cursor);
    return found;
}

}  // namespace vexagent
