// SPDX-License-Identifier: Apache-2.0
// The network that there is, down to a controller that does what a test says.

#include "agent/ad/net/ldap_network.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <csignal>
#include <future>

#include "agent/ad/net/scripted_controller_testing.h"
#include "vorn/own_file.h"

namespace vexagent {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr char kAnn[] = "CN=Ann,DC=example,DC=com";

class LdapNetworkTest : public ::testing::Test {
  protected:
    LdapNetworkTest() {
        std::signal(SIGPIPE, SIG_IGN);  // as the agent does
        m_options.controllers.servers = {"127.0.0.1:" + std::to_string(m_controller.peer().port)};
        m_options.tlsCa = m_controller.authorityFile();
        m_controller.answer([](Asked& asked, Talk& talk) { return answer(asked, talk); });
    }

    // Three people, and what the domain is. Runs in the controller's thread.
    static bool answer(const Asked& asked, Talk& talk) {
        if (asked.kind == Asked::Kind::Bind && asked.password == "wrong") {
            talk.result(LDAP_RES_BIND, asked.id, LDAP_INVALID_CREDENTIALS, "data 52e");
            return true;
        }
        if (asked.kind != Asked::Kind::Search) return false;
        if (asked.base.empty()) {
            talk.entry(asked.id, "",
                       {{"rootDomainNamingContext", {"DC=example,DC=com"}},
                        {"configurationNamingContext", {"CN=Configuration,DC=example,DC=com"}}});
        } else if (asked.base == "CN=none") {
            talk.done(asked.id, LDAP_NO_SUCH_OBJECT);
            return true;
        } else {
            for (const char* name : {"1", "2", "3"})
                talk.entry(asked.id, "CN=" + std::string(name), {{"cn", {name}}});
        }
        talk.done(asked.id);
        return true;
    }
    LdapNetwork& network() {
        if (!m_network) m_network.emplace(m_options);
        return *m_network;
    }
    Deadline soon() { return {network().clock(), milliseconds(20'000)}; }

    ScriptedController m_controller{ScriptedController::Tls::FromTheStart};
    vorn::test::TemporaryFolder m_folder;
    AdOptions m_options = serviceAccount(m_folder);
    std::optional<LdapNetwork> m_network;
    const Place m_place{"example.com"};
};

TEST_F(LdapNetworkTest, FindsWhatAControllerHolds) {
    const auto found = readOne(network(), m_place, {"DC=example,DC=com"}, soon());
    ASSERT_TRUE(found) << found.error().text;
    ASSERT_EQ(found->size(), 3u);
    EXPECT_EQ((*found)[0].first("cn"), "1");
    const auto none = readOne(network(), m_place, {"CN=none"}, soon());
    ASSERT_FALSE(none);
    EXPECT_TRUE(isMissing(none.error()));
    EXPECT_EQ(readAll(network(), m_place, {{"CN=none"}, {"CN=there"}}, soon())->size(), 3u);
}

TEST_F(LdapNetworkTest, KeepsALongSearchOpen) {
    LongSearch search;
    search.search = {"DC=example,DC=com"};
    search.first = 2;
    search.bytes = 100'000;
    auto opened = network().open(m_place, search, soon());
    ASSERT_TRUE(opened && opened->rest);
    EXPECT_EQ(opened->first.size(), 2u);
    const auto rest = opened->rest->next(10, soon());
    ASSERT_TRUE(rest);
    EXPECT_EQ(rest->size(), 1u);
    EXPECT_TRUE(opened->rest->atEnd());
}

TEST_F(LdapNetworkTest, KnowsWhatADomainIsAndThatItAnswers) {
    const auto info = network().describe(m_place, soon());
    ASSERT_TRUE(info) << info.error().text;
    EXPECT_EQ((*info)->root, "DC=example,DC=com");
    EXPECT_EQ((*info)->forest, "DC=example,DC=com");
    for (const Look look : {Look::AtWhatIsKnown, Look::IfLongAgo, Look::AtEverybody})
        EXPECT_TRUE(network().probe(m_place, look, soon()));
}

TEST_F(LdapNetworkTest, ShowsAPasswordOnce) {
    EXPECT_TRUE(network().bind(m_place, kAnn, "welcome", soon()));
    const auto wrong = network().bind(m_place, kAnn, "wrong", soon());
    ASSERT_FALSE(wrong);
    EXPECT_EQ(wrong.error().code, LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(m_controller.count(Asked::Kind::Bind), 2u);
}

TEST_F(LdapNetworkTest, WhereNobodyAnswersIsToldAndKnownFromThenOn) {
    m_options.controllers.servers = {"127.0.0.1:1"};
    const auto none = readOne(network(), m_place, {"DC=example,DC=com"}, soon());
    ASSERT_FALSE(none);
    EXPECT_TRUE(none.error().lost);
    EXPECT_THAT(none.error().text, HasSubstr("127.0.0.1 port 1"));
    const auto known = network().probe(m_place, Look::AtWhatIsKnown, soon());
    ASSERT_FALSE(known);
    EXPECT_THAT(known.error().text, HasSubstr("127.0.0.1 port 1"));
    EXPECT_FALSE(network().probe(m_place, Look::AtEverybody, soon()));
}

TEST_F(LdapNetworkTest, HasWorkDoneFromTimeToTimeUntilItIsEnded) {
    std::promise<void> done;
    std::atomic<int> rounds = 0;
    network().tend([&] {
        if (++rounds == 1) done.set_value();
    });
    done.get_future().wait();
    network().tend({});
    const int before = rounds;
    EXPECT_TRUE(readOne(network(), m_place, {"DC=example,DC=com"}, soon()));
    EXPECT_EQ(rounds, before);
}

TEST_F(LdapNetworkTest, APasswordThatOthersMayReadIsRefusedAtOnce) {
    ::chmod(m_options.account.bindPasswordFile.c_str(), 0644);
    EXPECT_THROW(LdapNetwork{m_options}, vorn::OwnFileError);
}

}  // namespace
}  // namespace vexagent
