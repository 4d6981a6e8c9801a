// What a domain answers when its controllers cannot be asked.

#include "agent/ad/net/domain.h"

#include <gtest/gtest.h>

namespace vexagent {
namespace {

class DomainTest : public ::testing::Test {
  protected:
    // A list that nobody need be asked for. Port 1 of this host: nobody listens there.
    static AdOptions options() {
        AdOptions options;
        options.domain = "example.com";
        options.servers = {"127.0.0.1:1", "127.0.0.1:2"};
        options.transport = Transport::Ldaps;
        return options;
    }
    static Deadline over() { return Deadline(vorn::systemSteadyClock(), now() - milliseconds(1)); }

    const AdOptions m_options = options();
    Watchdog m_watchdog;
    const LinkContext m_context{m_options, m_watchdog, nullptr};
    Domain m_domain{m_context, m_options.domain, Domain::Kind::Domain};
};

TEST_F(DomainTest, APasswordThatNobodyWasAskedAboutIsNotAccepted) {
    m_domain.locate();
    ASSERT_EQ(m_domain.controllers().size(), 2u);
    const auto late = m_domain.tryPassword("CN=ann,DC=example,DC=com", "welcome", over());
    ASSERT_FALSE(late);
    EXPECT_EQ(late.error().code, LDAP_TIMELIMIT_EXCEEDED);
    const auto alone =
        m_domain.tryPassword("CN=ann,DC=example,DC=com", "welcome", within(milliseconds(5000)));
    ASSERT_FALSE(alone);
    EXPECT_TRUE(alone.error().lost);
}

TEST_F(DomainTest, WithoutControllersNoPasswordIsAccepted) {
    const auto alone = m_domain.tryPassword("CN=ann,DC=example,DC=com", "welcome", over());
    ASSERT_FALSE(alone);
    EXPECT_TRUE(alone.error().lost);
}

}  // namespace
}  // namespace vexagent
