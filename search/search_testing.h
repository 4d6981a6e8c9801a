// SPDX-License-Identifier: Apache-2.0
// Search requests for tests, and what a client gets of them, without a running
// slapd and without an agent.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tests/standin/vex_standin.h"
#include "vorn/properties.h"

#include "tests/standin/slapd_standin.h"

namespace searchtest {

// An equality filter, with a null value a presence filter, as slapd hands it over. An
// attribute that begins with "~" makes an approximate one.
class TestFilter {
  public:
    TestFilter(const std::string& attribute, const char* value);
    TestFilter(const TestFilter&) = delete;
    TestFilter& operator=(const TestFilter&) = delete;
    Filter* filter() { return &m_filter; }

  private:
    std::string m_name;
    std::string m_value;
    AttributeDescription m_description{};
    AttributeAssertion m_assertion{};
    Filter m_filter{};
};

struct Paged {
    int size = 0;
    std::string cookie;
    int control = SLAP_CONTROL_NONCRITICAL;
};

// A search request.
struct Request {
    std::string base = "dc=example,dc=com";
    int scope = LDAP_SCOPE_SUBTREE;
    std::string attribute = "uid";
    const char* value = "ann";  // null: presence
    std::vector<std::string> attributes;
    int sizeLimit = SLAP_NO_LIMIT;
    int timeLimit = SLAP_NO_LIMIT;
    std::time_t start = 0;  // 0: now
    const Paged* paged = nullptr;
    bool abandoned = false;
    SlapReply before{};  // the reply as the hook finds it
};

// A client's connection to a database with the suffix dc=example,dc=com.
class Client {
  public:
    explicit Client(unsigned long id = 1) : m_connection(id) {}

    // What the client is sent for the request; the hook's answer goes to *answer. The
    // normalised form of the base is its lower-case one.
    std::vector<standin::Sent> search(const Request& request, int* answer = nullptr);

    // How often the last request asked for memory that goes with its operation.
    int allocations() const { return m_allocations; }
    // The reply as the last request left it.
    const SlapReply& reply() const { return m_reply; }

    standin::FakeConnection& connection() { return m_connection; }

  private:
    standin::FakeConnection m_connection;
    std::size_t m_seen = 0;
    int m_allocations = 0;
    SlapReply m_reply{};
};

// Called with true before each run of the search's hook and with false after it, when a
// test sets it.
extern void (*onHook)(bool runs);

// The control value's cookie.
std::string cookieOf(const standin::Sent& sent);

// A person as the agent gives one.
standin::Object person(const std::string& name);

}  // namespace searchtest
