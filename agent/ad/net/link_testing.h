// SPDX-License-Identifier: Apache-2.0
// Controllers in memory, for tests of what is made of them: which one is asked, for how
// long, and who is asked next. The clock moves only as far as they take their time.
//
//     FakeConnector connector;
//     connector.controllers["dc1"].hangs = true;
//     ... what is tested, over connector.context ...
//     EXPECT_THAT(connector.takeEvents(), ElementsAre("open dc1", ...));
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "agent/ad/net/context.h"
#include "vorn/clock_testing.h"

namespace vexagent {

struct FakeController {
    bool takesConnections = true;
    bool letsIn = true;  // otherwise the agent is barred
    bool hangs = false;  // takes connections and says nothing
    milliseconds opensAfter{0};
    milliseconds answersAfter{0};  // a search; whether it is there is told at once
    std::size_t most = 1000;       // entries that are sent at once
    std::string password = "welcome";
    std::optional<LinkFailure> refusesBind{};
    std::optional<LinkFailure> refusesChange{};
    bool hangsAtChanges = false;
    // What it holds; by default whatever is asked finds nothing.
    std::function<Linked<std::vector<Entry>>(const LdapSearch&)> answer{};
    // Failures of the next searches, one each.
    std::deque<LinkFailure> failures{};
    // What idle connections look like, as long as it is not told otherwise.
    bool keepsIdle = true;
};

// Several threads may ask at the same time; a test changes what there is in between only.
class FakeConnector : public Connector {
  public:
    FakeConnector() { options.domain = "example.com"; }

    vorn::test::ManualClock clock;
    AdOptions options;
    PageRule pages{clock};
    const NetContext context{options, *this, clock, pages, [] { return 0.5; }};

    std::map<std::string, FakeController> controllers;       // by host
    std::map<std::string, std::vector<SrvRecord>> services;  // by name; others are not there
    std::vector<std::string> events;                         // "open dc1", "search dc1 DC=x", ...
    std::vector<std::string> takeEvents() { return std::exchange(events, {}); }
    int openLinks = 0;

    Deadline within(milliseconds time) const { return {clock, time}; }

    Linked<std::unique_ptr<Link>> open(const std::string& domain, const Peer& peer,
                                       const Deadline& deadline) override;
    Linked<std::unique_ptr<Link>> openAnonymous(const Peer& peer, const Deadline& deadline) override;
    Expected<std::vector<SrvRecord>, std::string> findService(const std::string& name) override;
    void learnAddresses(const std::string& host, const Deadline& deadline) override;

  private:
    friend class FakeLink;

    Linked<std::unique_ptr<Link>> connect(const std::string& how, const Peer& peer, const Deadline& deadline);
    // Whether it is over before the deadline.
    bool pass(milliseconds time, const Deadline& deadline);

    std::recursive_mutex m_mutex;
};

// An entry with a DN and a GUID.
Entry entryOf(const std::string& dn, std::vector<Attribute> attributes = {});

}  // namespace vexagent
