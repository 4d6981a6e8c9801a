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
    const Verdict late = m_domain.tryPassword("CN=ann,DC=example,DC=com", "welcome", over());
    EXPECT_FALSE(late.accepted());
    EXPECT_EQ(late.result().errCode, LDAP_TIMELIMIT_EXCEEDED);
    const Verdict alone =
        m_domain.tryPassword("CN=ann,DC=example,DC=com", "welcome", within(milliseconds(5000)));
    EXPECT_EQ(alone.code(), VEX_UNAVAILABLE);
}

TEST_F(DomainTest, WithoutControllersNoPasswordIsAccepted) {
    EXPECT_EQ(m_domain.tryPassword("CN=ann,DC=example,DC=com", "welcome", over()).code(), VEX_UNAVAILABLE);
}

}  // namespace
}  // namespace vexagent
