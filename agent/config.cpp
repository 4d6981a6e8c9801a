#include "agent/config.h"

#include <grp.h>

#include <charconv>
#include <optional>
#include <sstream>

#include "vorn/dn.h"
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
        int result = 0;
        if (!parse(value, 10, result) || result < least || result > most)
            fail(setting, "is \"" + value + "\", not a number from " + std::to_string(least) + " to " +
                              std::to_string(most));
        return result;
    }

    unsigned mode(const vorn::Setting& setting) const {
        const std::string value = text(setting);
        int result = 0;
        if (!parse(value, 8, result) || result < 0 || result > 0777)
            fail(setting, "is \"" + value + "\", not an octal mode such as 0660");
        return static_cast<unsigned>(result);
    }

    std::string socketPath(const vorn::Setting& setting) const {
        const std::string value = required(setting);
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
    static bool parse(const std::string& value, int base, int& result) {
        const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), result, base);
        return error == std::errc() && end == value.data() + value.size();
    }

    const vorn::Properties& m_settings;
    const std::string m_file;
};

std::vector<std::string> words(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> result;
    for (std::string word; stream >> word;) result.push_back(word);
    return result;
}

}  // namespace

Config readConfig(const vorn::Properties& settings, const std::string& file) {
    if (const std::string unknown = vorn::unknownSetting(settings); !unknown.empty())
        throw SettingsError(unknown);
    const Reader reader(settings, file);
    if (const std::string kind = reader.text(vorn::SETTING_DIRECTORY); kind != "embedded")
        reader.fail(vorn::SETTING_DIRECTORY, "is \"" + kind + "\"; this agent serves: embedded");

    Config config;
    config.socket.path = reader.socketPath(vorn::SETTING_AGENT_SOCKET);
    config.socket.mode = reader.mode(vorn::SETTING_AGENT_SOCKET_MODE);
    config.socket.group = reader.group(vorn::SETTING_AGENT_SOCKET_GROUP);
    config.server.timeout = std::chrono::seconds(reader.number(vorn::SETTING_AGENT_TIMEOUT, 1, 3600));
    config.server.maxClients =
        static_cast<std::size_t>(reader.number(vorn::SETTING_AGENT_CLIENTS, 1, 100'000));
    config.threads = reader.number(vorn::SETTING_AGENT_THREADS, 1, 64);
    config.database = reader.required(vorn::SETTING_EMBEDDED_DATABASE);
    config.ldif = reader.text(vorn::SETTING_EMBEDDED_LDIF);
    config.domain = reader.required(vorn::SETTING_DOMAIN_NAME);
    if (!vorn::DN::isDN(vorn::DN::dnFromDomain(config.domain)))
        reader.fail(vorn::SETTING_DOMAIN_NAME, "is \"" + config.domain + "\", not a DNS name");
    config.loginAttributes = words(reader.text(vorn::SETTING_LOGIN_ATTRIBUTES));
    return config;
}

}  // namespace vexagent
