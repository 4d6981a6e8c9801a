// SPDX-License-Identifier: Apache-2.0
// The settings of this host: one properties file, read once by each process.
//
// The file is /etc/zanthe/zanthe.conf, or the one that the environment variable
// ZANTHE_CONF names. Every setting that any part of the system reads is listed
// in kSettings, with its default; a name that is not there is a mistake.
#pragma once

#include <span>
#include <string>

#include "vorn/properties.h"

namespace vorn {

struct Setting {
    const char* name;  // one ending in ".*" stands for a family
    const char* defaultValue;
    const char* meaning;  // one line, for --help and the manual
};

inline constexpr Setting SETTING_AGENT_SOCKET = {"agent.socket", "/run/zanthe/vexagent.sock",
                                                 "the agent's Unix socket"};
inline constexpr Setting SETTING_AGENT_SOCKET_MODE = {"agent.socket.mode", "0660",
                                                      "the socket's mode, octal: who may ask the agent"};
inline constexpr Setting SETTING_AGENT_SOCKET_GROUP = {"agent.socket.group", "",
                                                       "the socket's group (empty: the agent's own)"};
inline constexpr Setting SETTING_AGENT_TIMEOUT = {"agent.timeout", "10",
                                                  "seconds after which a call to the agent has failed"};
inline constexpr Setting SETTING_AGENT_THREADS = {"agent.threads", "4",
                                                  "how many requests the agent works on at once"};
inline constexpr Setting SETTING_AGENT_CLIENTS = {"agent.clients.max", "1024",
                                                  "how many connections the agent accepts at once"};
inline constexpr Setting SETTING_AGENT_PASSWORD_CHANGE = {
    "agent.password.change", "false",
    "whether people may change their own passwords through the agent: true or false"};
inline constexpr Setting SETTING_DIRECTORY = {
    "directory", "embedded",
    "which directory the agent serves: embedded, or ad for an Active Directory domain"};
inline constexpr Setting SETTING_EMBEDDED_DATABASE = {"embedded.database", "/var/lib/zanthe/directory.ldb",
                                                      "the embedded directory's LDB file"};
inline constexpr Setting SETTING_EMBEDDED_LDIF = {
    "embedded.ldif", "", "an LDIF file; the database is built from it when it does not exist"};
inline constexpr Setting SETTING_DOMAIN_NAME = {"domain.name", "", "the joined domain's DNS name"};
inline constexpr Setting SETTING_ZONE_REALNAME = {"zone.dn", "",
                                                  "the DN of the zone that the host is joined to"};
inline constexpr Setting SETTING_LOGIN_ATTRIBUTES = {
    "login.attributes", "sAMAccountName uid displayName",
    "attributes whose value may stand in a rewritten leading cn= of a DN"};
inline constexpr Setting SETTING_UNIX_ID_MIN = {
    "unix.id.min", "1", "the lowest uidNumber of a person and gidNumber of a group that hosts see"};
inline constexpr Setting SETTING_LOG_FILE = {"log.file", "", "the log file (empty: none)"};
inline constexpr Setting SETTING_LOG_LEVEL = {
    "log.level", "2",
    "least severe level written to the log file: 0 trace, 1 info, 2 warning, 3 error, 4 none"};
inline constexpr Setting SETTING_LOG_SYSLOG_LEVEL = {"log.syslog.level", "4", "the same for syslog"};
inline constexpr Setting SETTING_LOG_LEVELS = {"log.level.*", "",
                                               "log.level for one channel, such as log.level.dirgate"};
inline constexpr Setting SETTING_LOG_SYSLOG_LEVELS = {"log.syslog.level.*", "",
                                                      "log.syslog.level for one channel"};

inline constexpr Setting SETTING_AD_SERVERS = {
    "ad.servers", "", "the domain's controllers, host or host:port (empty: found by DNS)"};
inline constexpr Setting SETTING_AD_SITE = {"ad.site", "", "the site whose controllers are preferred"};
inline constexpr Setting SETTING_AD_TRANSPORT = {
    "ad.transport", "gssapi",
    "how the agent talks to controllers: gssapi with the machine's "
    "keytab, starttls or ldaps with a service account"};
inline constexpr Setting SETTING_AD_KEYTAB = {"ad.keytab", "/etc/krb5.keytab", "the machine's keytab"};
inline constexpr Setting SETTING_AD_PRINCIPAL = {
    "ad.principal", "", "the machine's name in the keytab (empty: the one that ends with $)"};
inline constexpr Setting SETTING_AD_BIND_NAME = {
    "ad.bind.name", "", "the service account for starttls and ldaps: a DN or name@domain"};
inline constexpr Setting SETTING_AD_BIND_PASSWORD_FILE = {
    "ad.bind.password.file", "", "a file whose first line is the service account's password"};
inline constexpr Setting SETTING_AD_TLS_CA = {
    "ad.tls.ca", "", "a file with the domain's certificate authority, for starttls and ldaps"};
inline constexpr Setting SETTING_AD_TIMEOUT = {
    "ad.timeout", "8", "seconds for one request to the domain, for all controllers together"};
inline constexpr Setting SETTING_AD_CONNECTIONS = {"ad.connections", "8",
                                                   "how many requests to one domain run at once"};
inline constexpr Setting SETTING_AD_GROUPS_MAX = {
    "ad.groups.max", "100000", "how many groups the memberships of one answer may go through"};
inline constexpr Setting SETTING_AD_IDS_FROM_SID = {
    "ad.ids.from.sid", "false", "whether accounts without numbers get ids made from their SIDs"};
inline constexpr Setting SETTING_AD_IDS_FIRST = {"ad.ids.first", "200000", "the lowest id that is made"};
inline constexpr Setting SETTING_AD_IDS_SLICES = {"ad.ids.slices", "10000",
                                                  "how many slices of ids all domains share"};
inline constexpr Setting SETTING_AD_IDS_SLICE_SIZE = {"ad.ids.slice.size", "200000",
                                                      "how many ids a slice has"};
inline constexpr Setting SETTING_AD_IDS_HOME = {
    "ad.ids.home", "/home/%u", "the home folder that comes with a made id; %u is the login name"};
inline constexpr Setting SETTING_AD_AUTH_CACHE = {
    "ad.auth.cache", "false",
    "whether earlier log-ins are remembered for the time when the domain is out of reach"};
inline constexpr Setting SETTING_AD_AUTH_CACHE_FILE = {"ad.auth.cache.file", "/var/lib/zanthe/logins",
                                                       "the file with the hashes of these log-ins"};
inline constexpr Setting SETTING_AD_AUTH_CACHE_MAX_AGE = {"ad.auth.cache.max.age", "168",
                                                          "hours after which a remembered log-in ends"};
inline constexpr Setting SETTING_AD_AUTH_CACHE_ATTEMPTS = {
    "ad.auth.cache.attempts", "5", "wrong passwords in a row after which a remembered log-in ends"};

// All of the above.
std::span<const Setting> knownSettings();

// The path of the settings file that this process uses.
std::string settingsFile();

// The process-wide settings, read at the first call. With reload they are read
// anew; references given out before stay valid and see the new values. A file
// that ZANTHE_CONF names must exist; the standard one may be missing, unless
// mustExist says otherwise. Throws PropertiesException, and reads again at the
// next call. Safe for several threads.
const Properties& Props(bool reload, bool mustExist);

// The setting's value, or its default.
std::string loadSetting(const Setting& setting);
std::string loadSetting(const Setting& setting, const Properties& settings);

// The first name in settings that is not known, as "FILE:LINE: unknown setting NAME"; empty when all are.
std::string unknownSetting(const Properties& settings);

}  // namespace vorn
