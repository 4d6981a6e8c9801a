// SPDX-License-Identifier: Apache-2.0
// A forest in memory, for tests: domains with entries and passwords, a clock that only
// moves as far as answers take, and controllers that fail when a test wants them to.
//
//     FakeNetwork network;
//     FakeDomain& domain = network.addDomain("example.com");
//     domain.add("CN=Ann,CN=Users,DC=example,DC=com", {{"sAMAccountName", {"ann"}}});
//     domain.answersAfter = milliseconds(20);
//     domain.next(Mishap::failOver(Mishap::When::Middle));
//     ... what is tested ...
//     EXPECT_EQ(network.count(Exchange::Kind::Search), 1u);
//
// For one thread.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "agent/ad/network.h"
#include "vorn/clock_testing.h"

namespace vexagent {

// What becomes of the next exchange.
struct Mishap {
    enum class When {
        Before,  // nothing comes
        Middle,  // half of the entries come
        After    // all of them come, and their end does not
    };
    When when = When::Before;
    std::optional<LdapFailure> failure{};  // the exchange's end; none: another controller answers

    static Mishap fail(When when, LdapFailure failure) { return {when, std::move(failure)}; }
    static Mishap failOver(When when) { return {when, std::nullopt}; }
    // None answers.
    static LdapFailure unreachable() { return {LDAP_SERVER_DOWN, "nobody answers", true}; }
};

// What was asked.
struct Exchange {
    enum class Kind { Search, Open, Next, Describe, Bind, Kdc, Probe };
    Kind kind = Kind::Search;
    std::string place{};  // its name; "$" before a catalog's
    std::vector<LdapSearch> searches{};
    std::string who{};  // a bind's DN, a KDC's account
};

// One domain. The DN of what it holds ends with its root, or is below its configuration.
class FakeDomain {
  public:
    // The forest's root domain names itself.
    FakeDomain(std::string name, const std::string& forest);

    DomainInfo info;
    milliseconds answersAfter{0};
    bool answers = true;        // false: every exchange ends as unreachable()
    bool countsAsDown = false;  // and that is known without asking

    // Every entry gets what it lacks of a GUID (made from the DN), distinguishedName,
    // objectClass and objectCategory. Another of the same DN replaces it.
    void add(const std::string& dn, std::vector<Attribute> attributes);
    void remove(const std::string& dn);
    static std::string guidOf(const std::string& dn);  // bytes

    // Whose password is which, for a bind (by DN) and a KDC (by account name).
    void setPassword(const std::string& dn, const std::string& account, const std::string& password);
    // What is said to somebody whatever the password; 0 for nothing.
    void refuseBind(const std::string& dn, LdapFailure failure);
    void refuseKdc(const std::string& account, KdcFailure failure);

    // The mishaps of the coming exchanges, one each, in this order.
    void next(Mishap mishap) { m_mishaps.push_back(std::move(mishap)); }

    const std::string& name() const { return m_name; }

  private:
    friend class FakeNetwork;

    bool holds(const std::string& dn) const;

    const std::string m_name;
    std::vector<Entry> m_entries;
    std::map<std::string, std::string> m_passwords;  // by lower-case DN, and by account
    std::map<std::string, LdapFailure> m_bindRefusals;
    std::map<std::string, KdcFailure> m_kdcRefusals;
    std::deque<Mishap> m_mishaps;
};

class FakeNetwork : public Network {
  public:
    vorn::test::ManualClock time;
    std::vector<Exchange> exchanges;
    std::size_t mostOpen = 8;  // searches
    // What entries of a catalog lack.
    std::vector<std::string> notInCatalog = {"unixHomeDirectory", "loginShell"};
    // Called when an exchange has begun and before it is answered: a test asks meanwhile,
    // moves the clock, or changes what is there.
    std::function<void(const Exchange&)> meanwhile;

    // A domain with controllers, in the forest of that DNS name: its own, where none is
    // given. Stays where it is.
    FakeDomain& addDomain(const std::string& name, const std::string& forest = {});

    std::size_t count(Exchange::Kind kind) const;
    // All of them; what was asked until now does not count any more.
    std::vector<Exchange> takeExchanges() { return std::exchange(exchanges, {}); }
    std::size_t openSearches() const { return m_open; }
    // Does what is to be done from time to time, once.
    void tendNow();

    Expected<SearchEnd, LdapFailure> search(const Place& place, const std::vector<LdapSearch>& searches,
                                            EntrySink& sink, const Deadline& deadline) override;
    Expected<OpenedSearch, LdapFailure> open(const Place& place, LongSearch search,
                                             const Deadline& deadline) override;
    Expected<std::shared_ptr<const DomainInfo>, LdapFailure> describe(const Place& place,
                                                                      const Deadline& deadline) override;
    Expected<Accepted, LdapFailure> bind(const Place& place, const std::string& dn,
                                         const std::string& password, const Deadline& deadline) override;
    Expected<Accepted, KdcFailure> askKdc(const Place& place, const std::string& account,
                                          const std::string& password, const Deadline& deadline) override;
    Expected<Done, LdapFailure> probe(const Place& place, Look look, const Deadline& deadline) override;
    void tend(std::function<void()> work) override { m_work = std::move(work); }
    const vorn::SteadyClock& clock() const override { return time; }

  private:
    friend class FakeOpenSearch;

    FakeDomain* find(const std::string& name);
    Expected<std::optional<Mishap>, LdapFailure> begin(Exchange exchange, const Place& place,
                                                       const Deadline& deadline);
    std::vector<FakeDomain*> reach(const Place& place);
    Expected<std::vector<Entry>, LdapFailure> find(const Place& place, const LdapSearch& search);
    LdapFailure missing(const Place& place, const std::string& base);

    std::vector<std::unique_ptr<FakeDomain>> m_domains;
    std::map<std::string, std::shared_ptr<const DomainInfo>> m_described;  // by lower-case name
    std::size_t m_open = 0;
    std::function<void()> m_work;
};

}  // namespace vexagent
