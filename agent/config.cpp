// SPDX-License-Identifier: Apache-2.0
#include "agent/config.h"

#include <grp.h>

#include <optional>
#include <sstream>

#include "agent/ad/net/peer.h"
#include "vorn/dn.h"
#include "vorn/numbers.h"
#include "vorn/settings.h"

namespace vexagent {
namespace {

class Reader {
  public:
    Reader(const vorn::Properties& settings, std::string file)
        : m_settings(settings), m_file(std::move(file)) {}

    std::string text(const vorn::Setting& setting) const { return vorn::loadSetting(setting, m_settings); }

    std::string required(const vorn::Setting& setting) const {
        std::string value = text(setting);
        if (value.empty()) fail(setting, "is not set");
        return value;
    }

    int number(const vorn::Setting& setting, int least, int most) const {
        const std::string value = text(setting);
        const auto result = vorn::parseNumber<int>(value);
        if (!result || *result < least || *result > most)
            fail(setting, "is \"" + value + "\", not a number from " + std::to_string(least) + " to " +
                              std::to_string(most));
        return *result;
    }

    bool flag(const vorn::Setting& setting) const {
        const std::string value = text(setting);
        if (value != "true" && value != "false") fail(setting, "is \"" + value + "\", not true or false");
        return value == "true";
    }

    unsigned mode(const vorn::Setting& setting) const {
        const std::string value = text(setting);
        const auto result = vorn::parseNumber<unsigned>(value, 8);
        if (!result || *result > 0777) fail(setting, "is \"" + value + "\", not an octal mode such as 0660");
        return *result;
    }

    std::string socketPath(const vorn::Setting& setting) const {
        std::string value = required(setting);
        if (value.size() > kLongestSocketPath)
            fail(setting, "is \"" + value + "\", which is longer than the " +
                              std::to_string(kLongestSocketPath) + " bytes that a socket's path may have");
        return value;
    }

    // Nothing for a setting that is empty.
    std::optional<gid_t> group(const vorn::Setting& setting) const {
        const std::string value = text(setting);
        if (value.empty()) return std::nullopt;
        const ::group* entry = ::getgrnam(value.c_str());
        if (entry == nullptr) fail(setting, "is \"" + value + "\", which is no group of this host");
        return entry->gr_gid;
    }

    [[noreturn]] void fail(const vorn::Setting& setting, const std::string& reason) const {
        const std::string origin = m_settings.origin(setting.name);
        throw SettingsError((origin.empty() ? m_file : origin) + ": " + setting.name + " " + reason);
    }

  private:
    const vorn::Properties& m_settings;
    const std::string m_file;
};

std::vector<std::string> words(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> result;
    for (std::string word; stream >> word;) result.push_back(word);
    return result;
}

Transport transport(const Reader& reader) {
    static constexpr std::pair<const char*, Transport> kTransports[] = {
        {"gssapi", Transport::Gssapi}, {"starttls", Transport::StartTls}, {"ldaps", Transport::Ldaps}};
    const std::string value = reader.text(vorn::SETTING_AD_TRANSPORT);
    for (const auto& [name, transport] : kTransports)
        if (value == name) return transport;
    reader.fail(vorn::SETTING_AD_TRANSPORT, "is \"" + value + "\", not gssapi, starttls or ldaps");
}

std::vector<std::string> servers(const Reader& reader) {
    std::vector<std::string> list = words(reader.text(vorn::SETTING_AD_SERVERS));
    for (const std::string& server : list)
        if (!parsePeer(server, 1))
            reader.fail(vorn::SETTING_AD_SERVERS, "names \"" + server + "\", which is no host or host:port");
    return list;
}

IdOptions idOptions(const Reader& reader) {
    const auto number = [&](const vorn::Setting& setting, int least, int most) {
        return static_cast<std::uint32_t>(reader.number(setting, least, most));
    };
    IdOptions ids;
    ids.fromSid = reader.flag(vorn::SETTING_AD_IDS_FROM_SID);
    ids.first = number(vorn::SETTING_AD_IDS_FIRST, 1000, 2'000'000'000);
    ids.slices = number(vorn::SETTING_AD_IDS_SLICES, 1, 1'000'000);
    ids.sliceSize = number(vorn::SETTING_AD_IDS_SLICE_SIZE, 1000, 1'000'000'000);
    ids.home = reader.required(vorn::SETTING_AD_IDS_HOME);
    // Ids are signed in places.
    if (ids.first + std::uint64_t{ids.slices} * ids.sliceSize > INT32_MAX)
        reader.fail(vorn::SETTING_AD_IDS_SLICES, "times ad.ids.slice.size is more than there are ids");
    return ids;
}

AuthCacheOptions authCacheOptions(const Reader& reader) {
    AuthCacheOptions cache;
    cache.enabled = reader.flag(vorn::SETTING_AD_AUTH_CACHE);
    cache.file = reader.required(vorn::SETTING_AD_AUTH_CACHE_FILE);
    cache.maxAge = std::chrono::hours(reader.number(vorn::SETTING_AD_AUTH_CACHE_MAX_AGE, 1, 8760));
    cache.attempts = reader.number(vorn::SETTING_AD_AUTH_CACHE_ATTEMPTS, 1, 1000);
    return cache;
}

AdOptions adOptions(const Reader& reader) {
    AdOptions ad;
    ad.controllers.servers = servers(reader);
    ad.controllers.site = reader.text(vorn::SETTING_AD_SITE);
    ad.transport = transport(reader);
    ad.account.keytab = reader.required(vorn::SETTING_AD_KEYTAB);
    ad.account.principal = reader.text(vorn::SETTING_AD_PRINCIPAL);
    ad.tlsCa = reader.text(vorn::SETTING_AD_TLS_CA);
    if (ad.transport != Transport::Gssapi) {
        ad.account.bindName = reader.required(vorn::SETTING_AD_BIND_NAME);
        ad.account.bindPasswordFile = reader.required(vorn::SETTING_AD_BIND_PASSWORD_FILE);
        // None by default: a public authority vouches for anybody's name.
        if (ad.tlsCa.empty())
            reader.fail(vorn::SETTING_AD_TLS_CA, std::string("is not set: ") + kHowToGetAuthority);
    }
    ad.timeout = std::chrono::seconds(reader.number(vorn::SETTING_AD_TIMEOUT, 1, 3600));
    ad.connections = static_cast<std::size_t>(reader.number(vorn::SETTING_AD_CONNECTIONS, 1, 64));
    ad.mostGroups = static_cast<std::size_t>(reader.number(vorn::SETTING_AD_GROUPS_MAX, 1, 10'000'000));
    ad.ids = idOptions(reader);
    ad.authCache = authCacheOptions(reader);
    return ad;
}

DirectoryKind directoryKind(const Reader& reader) {
    const std::string kind = reader.text(vorn::SETTING_DIRECTORY);
    if (kind == "embedded") return DirectoryKind::Embedded;
    if (kind == "ad") return DirectoryKind::Ad;
    reader.fail(vorn::SETTING_DIRECTORY, "is \"" + kind + "\"; this agent serves: embedded, ad");
}

}  // namespace

Config readConfig(const vorn::Properties& settings, const std::string& file) {
    if (const std::string unknown = vorn::unknownSetting(settings); !unknown.empty())
        throw SettingsError(unknown);
    const Reader reader(settings, file);
    Config config;
    config.directory = directoryKind(reader);
    config.socket.path = reader.socketPath(vorn::SETTING_AGENT_SOCKET);
    config.socket.mode = reader.mode(vorn::SETTING_AGENT_SOCKET_MODE);
    config.socket.group = reader.group(vorn::SETTING_AGENT_SOCKET_GROUP);
    config.server.timeout = std::chrono::seconds(reader.number(vorn::SETTING_AGENT_TIMEOUT, 1, 3600));
    config.server.maxClients =
        static_cast<std::size_t>(reader.number(vorn::SETTING_AGENT_CLIENTS, 1, 100'000));
    config.threads = reader.number(vorn::SETTING_AGENT_THREADS, 1, 64);
    config.passwordChange = reader.flag(vorn::SETTING_AGENT_PASSWORD_CHANGE);
    if (config.directory == DirectoryKind::Ad) config.ad = adOptions(reader);
    config.database = reader.required(vorn::SETTING_EMBEDDED_DATABASE);
    config.ldif = reader.text(vorn::SETTING_EMBEDDED_LDIF);
    config.domain = reader.required(vorn::SETTING_DOMAIN_NAME);
    if (!vorn::DN::isDN(vorn::DN::dnFromDomain(config.domain)))
        reader.fail(vorn::SETTING_DOMAIN_NAME, "is \"" + config.domain + "\", not a DNS name");
    config.loginAttributes = words(reader.text(vorn::SETTING_LOGIN_ATTRIBUTES));
    config.zone = reader.text(vorn::SETTING_ZONE_REALNAME);
    config.leastId = static_cast<std::uint32_t>(reader.number(vorn::SETTING_UNIX_ID_MIN, 0, INT32_MAX));
    config.ad.ids.least = config.leastId;
    config.ad.domain = config.domain;
    config.ad.loginAttributes = config.loginAttributes;
    return config;
}

}  // namespace vexagent
