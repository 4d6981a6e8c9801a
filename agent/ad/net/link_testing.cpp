// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/link_testing.h"

#include <crypt.h>

#include <algorithm>

#include "agent/directory/identifiers.h"
#include "agent/directory/passwords.h"

namespace vexagent {

class FakeLink : public Link {
  public:
    FakeLink(FakeConnector& connector, const Peer& peer) : Link(peer), m_connector(connector) {
        ++m_connector.openLinks;
        noteAnswer(connector.clock.now());
    }
    ~FakeLink() override {
        const std::lock_guard lock(m_connector.m_mutex);
        --m_connector.openLinks;
    }

    Linked<int> start(const LdapSearch& search, const std::string& cookie, int pageSize) override {
        const std::lock_guard lock(m_connector.m_mutex);
        m_connector.events.push_back("search " + peer().host + " " + search.base +
                                     (pageSize > 0 ? " by " + std::to_string(pageSize) : ""));
        m_operations[++m_last] = {search, cookie.empty() ? 0 : std::stoul(cookie), pageSize};
        return m_last;
    }

    Linked<Event> next(int id, const Deadline& deadline) override {
        const std::lock_guard lock(m_connector.m_mutex);
        if (!controller().takesConnections) return lost(LDAP_SERVER_DOWN, "gone");
        Operation& operation = m_operations.at(id);
        const bool plain = operation.search.base.empty();
        if (controller().hangs) return waitInVain(deadline);
        if (!operation.found && !plain && !waitFor(deadline)) return lost(LDAP_TIMEOUT, "no answer in time");
        noteAnswer(m_connector.clock.now());
        if (!operation.found) {
            if (auto begun = find(operation); !begun) return vorn::unexpected(begun.error());
        }
        return nextOf(operation);
    }

    Expected<Accepted, LdapFailure> checkPassword(const std::string& dn, const std::string& password,
                                                  const Deadline& deadline) override {
        const std::lock_guard lock(m_connector.m_mutex);
        m_connector.events.push_back("bind " + peer().host + " " + dn);
        if (controller().hangs || !waitFor(deadline)) {
            m_connector.clock.set(deadline.end());
            return vorn::unexpected(LdapFailure(LDAP_TIMEOUT, "no answer in time", true));
        }
        if (controller().refusesBind) return vorn::unexpected(LdapFailure(*controller().refusesBind));
        crypt_data data{};
        const char* hash = ::crypt_r(controller().password.c_str(), "zx", &data);
        if (const auto accepted = acceptedByHash(password, {hash})) return *accepted;
        return vorn::unexpected(LdapFailure(LDAP_INVALID_CREDENTIALS, "data 52e"));
    }

    Expected<Done, LdapFailure> changePassword(const std::string& dn, const vorn::Secret& from,
                                               const vorn::Secret& to, const Deadline& deadline) override {
        const std::lock_guard lock(m_connector.m_mutex);
        m_connector.events.push_back("change " + peer().host + " " + dn + " " + readable(from) + " " +
                                     readable(to));
        if (controller().hangsAtChanges || !waitFor(deadline)) {
            m_connector.clock.set(deadline.end());
            return vorn::unexpected(LdapFailure(LDAP_TIMEOUT, "no answer in time", true));
        }
        if (controller().refusesChange) return vorn::unexpected(LdapFailure(*controller().refusesChange));
        return Done();
    }

    bool looksUsable() const override {
        const std::lock_guard lock(m_connector.m_mutex);
        return !isLost() && m_connector.controllers.at(peer().host).keepsIdle;
    }

  private:
    struct Operation {
        LdapSearch search;
        std::size_t from = 0;
        int pageSize = 0;
        std::optional<std::vector<Entry>> found{};
        std::size_t at = 0;
    };

    // Of an attribute's bytes those that are letters.
    static std::string readable(const vorn::Secret& value) {
        std::string text = value.text();
        std::erase(text, '\0');
        return text;
    }

    FakeController& controller() { return m_connector.controllers.at(peer().host); }

    tl::unexpected<LinkFailure> lost(int code, const std::string& reason) {
        giveUp();
        return vorn::unexpected(LinkFailure(code, peer().host + ": " + reason, true));
    }

    bool waitFor(const Deadline& deadline) { return m_connector.pass(controller().answersAfter, deadline); }

    // As a connection does: now and then it is asked whether the controller is still there.
    Linked<Event> waitInVain(const Deadline& deadline) {
        const milliseconds patience = deadline.share(milliseconds(1500), 4);
        while (stillThere() && !deadline.passed()) {
            m_connector.clock.advance(std::min(patience, deadline.left()));
            if (!deadline.passed() && !stillThere()(deadline)) return lost(LDAP_UNAVAILABLE, "hangs");
        }
        if (!deadline.passed()) m_connector.clock.set(deadline.end());
        return lost(LDAP_TIMEOUT, "no answer in time");
    }

    Linked<Done> find(Operation& operation) {
        std::deque<LinkFailure>& failures = controller().failures;
        if (!failures.empty() && !operation.search.base.empty()) {
            const LinkFailure failure = failures.front();
            failures.pop_front();
            if (failure.lost) giveUp();
            return vorn::unexpected(failure);
        }
        operation.found.emplace();
        if (!controller().answer) return Done();
        auto entries = controller().answer(operation.search);
        if (!entries) return vorn::unexpected(entries.error());
        operation.found = std::move(*entries);
        operation.at = operation.from;
        return Done();
    }

    Linked<Event> nextOf(Operation& operation) {
        const std::size_t size =
            operation.pageSize > 0
                ? std::min<std::size_t>(static_cast<std::size_t>(operation.pageSize), controller().most)
                : controller().most;
        const std::size_t to = std::min(operation.found->size(), operation.from + size);
        if (operation.at < to) return Event((*operation.found)[operation.at++]);
        const bool more = to < operation.found->size();
        if (more && operation.pageSize == 0)
            return vorn::unexpected(LinkFailure(LDAP_SIZELIMIT_EXCEEDED, "no more at once"));
        return Event(PageEnd{more ? std::to_string(to) : ""});
    }

    FakeConnector& m_connector;
    std::map<int, Operation> m_operations;
    int m_last = 0;
};

bool FakeConnector::pass(milliseconds time, const Deadline& deadline) {
    const bool inTime = time < deadline.left() || (time == milliseconds(0) && !deadline.passed());
    clock.advance(std::min(time, deadline.left()));
    return inTime;
}

Linked<std::unique_ptr<Link>> FakeConnector::connect(const std::string& how, const Peer& peer,
                                                     const Deadline& deadline) {
    const std::lock_guard lock(m_mutex);
    events.push_back(how + " " + peer.host);
    FakeController& controller = controllers[peer.host];
    if (!controller.takesConnections)
        return vorn::unexpected(LinkFailure(LDAP_SERVER_DOWN, peer.host + ": refused", true));
    if (!pass(controller.opensAfter, deadline))
        return vorn::unexpected(LinkFailure(LDAP_TIMEOUT, peer.host + ": no connection in time", true));
    return std::make_unique<FakeLink>(*this, peer);
}

Linked<std::unique_ptr<Link>> FakeConnector::open(const std::string&, const Peer& peer,
                                                  const Deadline& deadline) {
    auto link = connect("open", peer, deadline);
    if (!link || controllers[peer.host].letsIn) return link;
    LinkFailure barred(LDAP_UNAVAILABLE, peer.host + ": refuses the agent", true);
    barred.barred = true;
    return vorn::unexpected(barred);
}

Linked<std::unique_ptr<Link>> FakeConnector::openAnonymous(const Peer& peer, const Deadline& deadline) {
    return connect("look", peer, deadline);
}

Expected<std::vector<SrvRecord>, std::string> FakeConnector::findService(const std::string& name) {
    const std::lock_guard lock(m_mutex);
    events.push_back("find " + name);
    const auto service = services.find(name);
    if (service == services.end()) return vorn::unexpected(name + ": no such service");
    return service->second;
}

void FakeConnector::learnAddresses(const std::string& host, const Deadline&) {
    const std::lock_guard lock(m_mutex);
    events.push_back("learn " + host);
}

Entry entryOf(const std::string& dn, std::vector<Attribute> attributes) {
    attributes.push_back({"objectGUID", {guidFromName(dn)}});
    return {dn, std::move(attributes)};
}

}  // namespace vexagent
