// SPDX-License-Identifier: Apache-2.0
#include "agent/config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>

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
    EXPECT_TRUE(config.ad.controllers.servers.empty());
    EXPECT_EQ(config.ad.transport, Transport::Gssapi);
    EXPECT_EQ(config.ad.account.keytab, "/etc/krb5.keytab");
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
    EXPECT_THAT(config.ad.controllers.servers, ::testing::ElementsAre("dc1", "[::1]:390"));
    EXPECT_EQ(config.ad.controllers.site, "North");
    EXPECT_EQ(config.ad.transport, Transport::StartTls);
    EXPECT_EQ(config.ad.account.bindName, "svc@example.com");
    EXPECT_EQ(config.ad.account.bindPasswordFile, "/p");
    EXPECT_EQ(config.ad.tlsCa, "/ca");
    EXPECT_EQ(config.ad.ids.least, 1000u);
    EXPECT_EQ(config.leastId, 1000u);
    EXPECT_TRUE(config.ad.ids.fromSid);
    EXPECT_TRUE(config.ad.authCache.enabled);
    EXPECT_EQ(config.zone, "CN=z,DC=example,DC=com");
}

TEST(Config, EverySettingOfADomainIsRead) {
    const Config config = read(
        "domain.name = example.com\ndirectory = ad\nad.keytab = /k\nad.principal = GATE$\n"
        "ad.ids.home = /users/%u\nad.auth.cache.file = /l\nlogin.attributes = mail  uid\n");
    EXPECT_EQ(config.ad.account.keytab, "/k");
    EXPECT_EQ(config.ad.account.principal, "GATE$");
    EXPECT_EQ(config.ad.ids.home, "/users/%u");
    EXPECT_EQ(config.ad.authCache.file, "/l");
    EXPECT_THAT(config.ad.loginAttributes, ::testing::ElementsAre("mail", "uid"));
    EXPECT_THAT(config.loginAttributes, ::testing::ElementsAre("mail", "uid"));
    EXPECT_EQ(read("domain.name = example.com\ndirectory = ad\n").ad.ids.home, "/home/%u");
}

TEST(Config, EverySettingOfAnEmbeddedDirectoryIsRead) {
    const Config config = read(
        "domain.name = example.com\nembedded.database = /d\nembedded.ldif = /l\n"
        "agent.password.change = true\nagent.socket = /s\nagent.socket.mode = 0777\n");
    EXPECT_EQ(config.directory, DirectoryKind::Embedded);
    EXPECT_EQ(config.database, "/d");
    EXPECT_EQ(config.ldif, "/l");
    EXPECT_TRUE(config.passwordChange);
    EXPECT_FALSE(read("domain.name = example.com\n").passwordChange);
    EXPECT_NE(failure("domain.name = example.com\nagent.password.change = yes\n"), "accepted");
    EXPECT_EQ(config.socket.path, "/s");
    EXPECT_EQ(config.socket.mode, 0777u);
    EXPECT_NE(failure("domain.name = example.com\nagent.socket.mode = 1000\n"), "accepted");
    EXPECT_NE(failure("domain.name = example.com\nembedded.database =\n"), "accepted");
}

// Each number takes its least and its largest value, and none beyond them.
TEST(Config, NumbersHaveTheirBounds) {
    const struct {
        const char* name;
        long least, most;
        long (*value)(const Config&);
    } cases[] = {
        {"agent.timeout", 1, 3600, [](const Config& c) { return long{c.server.timeout.count() / 1000}; }},
        {"agent.clients.max", 1, 100'000,
         [](const Config& c) { return static_cast<long>(c.server.maxClients); }},
        {"agent.threads", 1, 64, [](const Config& c) { return long{c.threads}; }},
        {"unix.id.min", 0, INT32_MAX, [](const Config& c) { return long{c.leastId}; }},
        {"ad.timeout", 1, 3600,
         [](const Config& c) {
             return long{std::chrono::duration_cast<std::chrono::seconds>(c.ad.timeout).count()};
         }},
        {"ad.connections", 1, 64, [](const Config& c) { return static_cast<long>(c.ad.connections); }},
        {"ad.groups.max", 1, 10'000'000, [](const Config& c) { return static_cast<long>(c.ad.mostGroups); }},
        {"ad.ids.first", 1000, 2'000'000'000, [](const Config& c) { return long{c.ad.ids.first}; }},
        {"ad.ids.slices", 1, 1'000'000, [](const Config& c) { return long{c.ad.ids.slices}; }},
        {"ad.ids.slice.size", 1000, 1'000'000'000, [](const Config& c) { return long{c.ad.ids.sliceSize}; }},
        {"ad.auth.cache.max.age", 1, 8760,
         [](const Config& c) {
             return long{std::chrono::duration_cast<std::chrono::hours>(c.ad.authCache.maxAge).count()};
         }},
        {"ad.auth.cache.attempts", 1, 1000, [](const Config& c) { return long{c.ad.authCache.attempts}; }},
    };
    for (const auto& one : cases) {
        const auto with = [&](long value) {
            // What the others leave room for: ids are signed in places.
            const std::string name = one.name;
            const std::string few =
                name == "ad.ids.slices" ? "ad.ids.slice.size = 1000\n" : "ad.ids.slices = 1\n";
            return "domain.name = example.com\ndirectory = ad\n" + few + name + " = " +
                   std::to_string(value) + "\n";
        };
        EXPECT_EQ(one.value(read(with(one.least))), one.least) << one.name;
        EXPECT_EQ(one.value(read(with(one.most))), one.most) << one.name;
        const std::string range =
            ", not a number from " + std::to_string(one.least) + " to " + std::to_string(one.most);
        EXPECT_THAT(failure(with(one.least - 1)), ::testing::EndsWith(range)) << one.name;
        EXPECT_THAT(failure(with(one.most + 1)), ::testing::EndsWith(range)) << one.name;
    }
}

TEST(Config, MadeIdsStaySigned) {
    const auto with = [](const char* slices) {
        return "domain.name = example.com\ndirectory = ad\nad.ids.first = 1647\nad.ids.slice.size = "
               "1000\nad.ids.slices = " +
               std::string(slices) + "\n";
    };
    EXPECT_EQ(failure(with("1000000")), "accepted");
    const std::string most =
        "domain.name = example.com\ndirectory = ad\nad.ids.slice.size = 1000000\nad.ids.slices = 2000\n";
    EXPECT_EQ(failure(most + "ad.ids.first = 147483647\n"), "accepted");
    EXPECT_THAT(failure(most + "ad.ids.first = 147483648\n"),
                ::testing::EndsWith("ad.ids.slices times ad.ids.slice.size is more than there are ids"));
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
