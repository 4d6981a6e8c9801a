// SPDX-License-Identifier: Apache-2.0
// Links, and what is read with them, against controllers that do what a test says.
#pragma once

#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include "agent/ad/net/ldap_connector.h"
#include "agent/ad/net/results.h"
#include "agent/ad/net/scripted_controller_testing.h"

namespace vexagent::test {

inline constexpr milliseconds kPlenty{20'000};
inline constexpr milliseconds kShort{150};

inline std::string dnOf(int number) {
    return "CN=" + std::to_string(number) + ",DC=example,DC=com";
}

// How something ended, by a failure's own words; a success has none.
struct Ended {
    int code = LDAP_SUCCESS;
    std::string text{};
    bool lost = false;
    bool again = false;
    bool barred = false;
    bool ok() const { return code == LDAP_SUCCESS; }
};
template <class T>
Ended ended(const Linked<T>& answer) {
    if (answer) return {};
    const LinkFailure& failure = answer.error();
    return {failure.code, failure.text, failure.lost, failure.again, failure.barred};
}

inline Deadline within(milliseconds time) {
    return {vorn::systemSteadyClock(), time};
}

inline Moment now() {
    return vorn::systemSteadyClock().now();
}

class LinkTest : public ::testing::Test {
  protected:
    LinkTest() {
        std::signal(SIGPIPE, SIG_IGN);            // as the agent does: libldap writes when it parts
        m_options.transport = Transport::Gssapi;  // without TLS, where a test does not open one with it
        m_options.timeout = kPlenty;
    }

    // One on which nobody has introduced himself, without TLS.
    std::unique_ptr<Link> plain(const ScriptedController& controller) {
        auto link = m_connector.openAnonymous(controller.peer(), within(kPlenty));
        EXPECT_TRUE(link) << link.error().text;
        return std::move(*link);
    }

    Ended open(const ScriptedController& controller, Transport transport, milliseconds time = kPlenty) {
        m_options.transport = transport;
        if (m_options.tlsCa.empty()) m_options.tlsCa = controller.authorityFile();
        auto link = m_connector.open("example.com", controller.peer(), within(time));
        const Ended end = ended(link);
        if (link) m_link = std::move(*link);
        return end;
    }

    Ended search(Link& link, const LdapSearch& search, const Deadline& deadline,
                 const LinkReader::Visitor& visit) {
        return ended(LinkReader(link, m_pages, deadline).search(search, visit));
    }
    Ended searchAll(Link& link, const std::vector<LdapSearch>& searches, const LinkReader::Visitor& visit) {
        return ended(LinkReader(link, m_pages, within(kPlenty)).searchAll(searches, visit));
    }

    // The DNs that a search finds.
    std::vector<std::string> found(Link& link, const LdapSearch& what, milliseconds time = kPlenty) {
        std::vector<std::string> dns;
        m_status = search(link, what, within(time), [&](Entry&& entry) { dns.push_back(entry.dn); });
        return dns;
    }

    // What the controller says to a search from now on.
    using Say = std::function<void(const Asked&, Talk&)>;
    static void onSearch(ScriptedController& controller, Say say) {
        controller.answer([say = std::move(say)](Asked& asked, Talk& talk) {
            if (asked.kind != Asked::Kind::Search) return false;
            say(asked, talk);
            return true;
        });
    }

    vorn::test::TemporaryFolder m_folder;
    AdOptions m_options = serviceAccount(m_folder);
    Watchdog m_watchdog{vorn::systemSteadyClock()};
    PageRule m_pages{vorn::systemSteadyClock()};
    LdapConnector m_connector{m_options, m_watchdog, vorn::systemSteadyClock(), nullptr};
    std::unique_ptr<Link> m_link;
    Ended m_status;
    const LdapSearch m_everybody{"DC=example,DC=com"};
};

}  // namespace vexagent::test
