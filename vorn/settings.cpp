// SPDX-License-Identifier: Apache-2.0
#include "vorn/settings.h"

#include <cerrno>
#include <cstdlib>

namespace vorn {
namespace {

constexpr const char* kStandardFile = "/etc/zanthe/zanthe.conf";
constexpr const char* kFileVariable = "ZANTHE_CONF";

constexpr Setting kSettings[] = {
    SETTING_AGENT_SOCKET,
    SETTING_AGENT_SOCKET_MODE,
    SETTING_AGENT_SOCKET_GROUP,
    SETTING_AGENT_TIMEOUT,
    SETTING_AGENT_THREADS,
    SETTING_AGENT_CLIENTS,
    SETTING_AGENT_PASSWORD_CHANGE,
    SETTING_DIRECTORY,
    SETTING_EMBEDDED_DATABASE,
    SETTING_EMBEDDED_LDIF,
    SETTING_DOMAIN_NAME,
    SETTING_ZONE_REALNAME,
    SETTING_LOGIN_ATTRIBUTES,
    SETTING_UNIX_ID_MIN,
    SETTING_AD_SERVERS,
    SETTING_AD_SITE,
    SETTING_AD_TRANSPORT,
    SETTING_AD_KEYTAB,
    SETTING_AD_PRINCIPAL,
    SETTING_AD_BIND_NAME,
    SETTING_AD_BIND_PASSWORD_FILE,
    SETTING_AD_TLS_CA,
    SETTING_AD_TIMEOUT,
    SETTING_AD_CONNECTIONS,
    SETTING_AD_GROUPS_MAX,
    SETTING_AD_IDS_FROM_SID,
    SETTING_AD_IDS_FIRST,
    SETTING_AD_IDS_SLICES,
    SETTING_AD_IDS_SLICE_SIZE,
    SETTING_AD_IDS_HOME,
    SETTING_AD_AUTH_CACHE,
    SETTING_AD_AUTH_CACHE_FILE,
    SETTING_AD_AUTH_CACHE_MAX_AGE,
    SETTING_AD_AUTH_CACHE_ATTEMPTS,
    SETTING_LOG_FILE,
    SETTING_LOG_LEVEL,
    SETTING_LOG_SYSLOG_LEVEL,
    SETTING_LOG_LEVELS,
    SETTING_LOG_SYSLOG_LEVELS,
};

const char* fileFromEnvironment() {
    const char* file = secure_getenv(kFileVariable);
    return file != nullptr && *file != '\0' ? file : nullptr;
}

// The process's settings. Never destroyed: threads may read them until the end.
class HostSettings {
  public:
    const Properties& get(bool reload, bool mustExist) {
        const std::lock_guard guard(m_lock);
        const bool enough = m_read && (m_present || !mustExist);
        if (reload || !enough) read(mustExist);
        return m_values;
    }

  private:
    void read(bool mustExist) {
        m_read = false;
        Properties fresh;
        m_present = loadInto(fresh, mustExist || fileFromEnvironment() != nullptr);
        m_values.assign(std::move(fresh));
        m_read = true;
    }

    static bool loadInto(Properties& table, bool mustExist) {
        try {
            table.load(settingsFile(), false);
            return true;
        } catch (const PropertiesException& failure) {
            if (mustExist || failure.code() != ENOENT) throw;
            return false;
        }
    }

    Lock m_lock;
    bool m_read = false;     // guarded by m_lock
    bool m_present = false;  // guarded by m_lock: whether there was a file
    Properties m_values;
};

HostSettings& hostSettings() {
    static HostSettings* const settings = new HostSettings;
    return *settings;
}

bool matches(const Setting& setting, std::string_view name) {
    const std::string_view pattern = setting.name;
    if (!pattern.ends_with(".*")) return equalsIgnoreCase(pattern, name);
    const std::string_view family = pattern.substr(0, pattern.size() - 1);
    return name.size() > family.size() && startsWithIgnoreCase(name, family);
}

bool isKnown(std::string_view name) {
    for (const Setting& setting : kSettings) {
        if (matches(setting, name)) return true;
    }
    return false;
}

}  // namespace

std::span<const Setting> knownSettings() {
    return kSettings;
}

std::string settingsFile() {
    const char* file = fileFromEnvironment();
    return file != nullptr ? file : kStandardFile;
}

const Properties& Props(bool reload, bool mustExist) {
    return hostSettings().get(reload, mustExist);
}

std::string loadSetting(const Setting& setting) {
    return loadSetting(setting, Props(false, false));
}

std::string loadSetting(const Setting& setting, const Properties& settings) {
    return settings.get(setting.name, setting.defaultValue);
}

std::string unknownSetting(const Properties& settings) {
    const auto entries = settings.getMap("");
    for (const auto& [name, value] : *entries) {
        if (!isKnown(name)) return settings.origin(name) + ": unknown setting " + name;
    }
    return {};
}

}  // namespace vorn
