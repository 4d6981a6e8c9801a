#include "agent/config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace vexagent {
namespace {

Config read(const std::string& text) {
    vorn::Properties settings;
    settings.parse(text, "host.conf");
    return readConfig(settings, "host.conf");
}

std::string failure(const std::string& text) {
    try {
        read(text);
    } catch (const SettingsError& error) {
        return error.what();
    }
    return "accepted";
}

TEST(Config, Defaults) {
    const Config config = read("domain.name = example.com\n");
    EXPECT_EQ(config.socket.path, "/run/zanthe/vexagent.sock");
    EXPECT_EQ(config.socket.mode, 0660u);
    EXPECT_EQ(config.socket.group, std::nullopt);
    EXPECT_EQ(config.server.timeout, std::chrono::seconds(10));
    EXPECT_EQ(config.server.maxClients, 1024u);
    EXPECT_EQ(config.threads, 4);
    EXPECT_EQ(config.database, "/var/lib/zanthe/directory.ldb");
    EXPECT_EQ(config.ldif, "");
    EXPECT_EQ(config.domain, "example.com");
    EXPECT_THAT(config.loginAttributes, ::testing::ElementsAre("sAMAccountName", "uid", "displayName"));
}

TEST(Config, DefaultsOfADomain) {
    const Config config = read("domain.name = example.com\ndirectory = ad\n");
    EXPECT_EQ(config.directory, DirectoryKind::Ad);
    EXPECT_EQ(config.ad.domain, "example.com");
    EXPECT_TRUE(config.ad.servers.empty());
    EXPECT_EQ(config.ad.transport, Transport::Gssapi);
    EXPECT_EQ(config.ad.keytab, "/etc/krb5.keytab");
    EXPECT_EQ(config.ad.tlsCa, "");
    EXPECT_EQ(config.ad.timeout, std::chrono::seconds(8));
    EXPECT_EQ(config.ad.connections, 8u);
    EXPECT_EQ(config.ad.mostGroups, 100'000u);
    EXPECT_FALSE(config.ad.ids.fromSid);
    EXPECT_EQ(config.ad.ids.first, 200'000u);
    EXPECT_EQ(config.ad.ids.slices, 10'000u);
    EXPECT_EQ(config.ad.ids.sliceSize, 200'000u);
    EXPECT_FALSE(config.ad.authCache.enabled);
    EXPECT_EQ(config.ad.authCache.file, "/var/lib/zanthe/logins");
    EXPECT_EQ(config.ad.authCache.maxAge, std::chrono::hours(168));
    EXPECT_EQ(config.ad.authCache.attempts, 5);
    EXPECT_THAT(config.ad.loginAttributes, ::testing::ElementsAre("sAMAccountName", "uid", "displayName"));
}

TEST(Config, ADomainsSettingsAreRead) {
    const Config config = read(
        "domain.name = example.com\ndirectory = ad\nad.servers = dc1 [::1]:390\nad.site = North\n"
        "ad.transport = starttls\nad.bind.name = svc@example.com\nad.bind.password.file = /p\n"
        "ad.tls.ca = /ca\nunix.id.min = 1000\n"
        "ad.ids.from.sid = true\nad.auth.cache = true\nzone.dn = CN=z,DC=example,DC=com\n");
    EXPECT_THAT(config.ad.servers, ::testing::ElementsAre("dc1", "[::1]:390"));
    EXPECT_EQ(config.ad.site, "North");
    EXPECT_EQ(config.ad.transport, Transport::StartTls);
    EXPECT_EQ(config.ad.bindName, "svc@example.com");
    EXPECT_EQ(config.ad.bindPasswordFile, "/p");
    EXPECT_EQ(config.ad.tlsCa, "/ca");
    EXPECT_EQ(config.ad.ids.least, 1000u);
    EXPECT_EQ(config.leastId, 1000u);
    EXPECT_TRUE(config.ad.ids.fromSid);
    EXPECT_TRUE(config.ad.authCache.enabled);
    EXPECT_EQ(config.zone, "CN=z,DC=example,DC=com");
}

TEST(Config, TheSocketsGroupIsKnown) {
    const Config config = read("domain.name = example.com\nagent.socket.group = root\n");
    EXPECT_EQ(config.socket.group, 0u);
}

TEST(Config, ASocketsPathFitsItsAddress) {
    const std::string longest = "/" + std::string(106, 'x');
    EXPECT_EQ(read("domain.name = example.com\nagent.socket = " + longest + "\n").socket.path, longest);
    EXPECT_EQ(failure("domain.name = example.com\nagent.socket = " + longest + "x\n"),
              "host.conf:2: agent.socket is \"" + longest +
                  "x\", which is longer than the 107 bytes that a socket's path may have");
}

TEST(Config, MistakesNameTheirPlace) {
    const std::pair<const char*, const char*> cases[] = {
        {"", "host.conf: domain.name is not set"},
        {"domain.name = example.com\nagent.threads = 0\n",
         "host.conf:2: agent.threads is \"0\", not a number from 1 to 64"},
        {"domain.name = example.com\nagent.threads = four\n",
         "host.conf:2: agent.threads is \"four\", not a number from 1 to 64"},
        {"domain.name = example.com\nagent.timeout = 1x\n",
         "host.conf:2: agent.timeout is \"1x\", not a number from 1 to 3600"},
        {"domain.name = example.com\nagent.timeout = 4294967297\n",
         "host.conf:2: agent.timeout is \"4294967297\", not a number from 1 to 3600"},
        {"domain.name = example.com\nagent.clients.max = 18446744073709551617\n",
         "host.conf:2: agent.clients.max is \"18446744073709551617\", not a number from 1 to 100000"},
        {"domain.name = example.com\nagent.threads = +4\n",
         "host.conf:2: agent.threads is \"+4\", not a number from 1 to 64"},
        {"domain.name = example.com\nagent.socket.mode = -660\n",
         "host.conf:2: agent.socket.mode is \"-660\", not an octal mode such as 0660"},
        {"domain.name = example.com\nagent.socket.mode = 40000000660\n",
         "host.conf:2: agent.socket.mode is \"40000000660\", not an octal mode such as 0660"},
        {"domain.name = example.com\nagent.socket.mode = 1777\n",
         "host.conf:2: agent.socket.mode is \"1777\", not an octal mode such as 0660"},
        {"domain.name = example.com\n\nagent.socket.mode = 0888\n",
         "host.conf:3: agent.socket.mode is \"0888\", not an octal mode such as 0660"},
        {"domain.name = example.com\nagent.socket.group = nobody at all\n",
         "host.conf:2: agent.socket.group is \"nobody at all\", which is no group of this host"},
        {"domain.name = example.com\nagent.socket =\n", "host.conf:2: agent.socket is not set"},
        {"domain.name = example.com\nagent.soket = x\n", "host.conf:2: unknown setting agent.soket"},
        {"domain.name = example.com\ndirectory = ldap\n",
         "host.conf:2: directory is \"ldap\"; this agent serves: embedded, ad"},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(failure(text), expected) << text;
}

TEST(Config, MistakesInADomainsSettingsNameTheirPlace) {
    const std::string kNoAuthority = std::string("host.conf: ad.tls.ca is not set: ") + kHowToGetAuthority;
    const std::pair<const char*, const char*> cases[] = {
        {"ad.servers = dc1 dc2:x", "host.conf:3: ad.servers names \"dc2:x\", which is no host or host:port"},
        {"ad.servers = dc1:65536",
         "host.conf:3: ad.servers names \"dc1:65536\", which is no host or host:port"},
        {"ad.servers = dc1:0", "host.conf:3: ad.servers names \"dc1:0\", which is no host or host:port"},
        {"ad.servers = dc1:-1", "host.conf:3: ad.servers names \"dc1:-1\", which is no host or host:port"},
        {"ad.ids.first = 4294967296",
         "host.conf:3: ad.ids.first is \"4294967296\", not a number from 1000 to 2000000000"},
        {"ad.transport = plain", "host.conf:3: ad.transport is \"plain\", not gssapi, starttls or ldaps"},
        {"ad.transport = ldaps", "host.conf: ad.bind.name is not set"},
        {"ad.transport = ldaps\nad.bind.name = x", "host.conf: ad.bind.password.file is not set"},
        {"ad.transport = ldaps\nad.bind.name = x\nad.bind.password.file = /p", kNoAuthority.c_str()},
        {"ad.transport = starttls\nad.bind.name = x\nad.bind.password.file = /p", kNoAuthority.c_str()},
        {"unix.id.min = -1", "host.conf:3: unix.id.min is \"-1\", not a number from 0 to 2147483647"},
        {"unix.id.min = 2147483648",
         "host.conf:3: unix.id.min is \"2147483648\", not a number from 0 to 2147483647"},
        {"ad.ids.from.sid = yes", "host.conf:3: ad.ids.from.sid is \"yes\", not true or false"},
        {"ad.ids.slices = 20000",
         "host.conf:3: ad.ids.slices times ad.ids.slice.size is more than there are ids"},
        {"ad.auth.cache = 1", "host.conf:3: ad.auth.cache is \"1\", not true or false"},
        {"ad.timeout = 0", "host.conf:3: ad.timeout is \"0\", not a number from 1 to 3600"},
        {"ad.keytab =", "host.conf:3: ad.keytab is not set"},
    };
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(failure("domain.name = example.com\ndirectory = ad\n" + std::string(text) + "\n"), expected)
            << text;
}

}  // namespace
}  // namespace vexagent
