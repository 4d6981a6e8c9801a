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

}  // namespace
}  // namespace vexagent
