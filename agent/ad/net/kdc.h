// SPDX-License-Identifier: Apache-2.0
// Conversations with KDCs, without the Kerberos library's network.
//
// The library's own way to a KDC takes up to 20 seconds to leave one that hangs,
// asks by UDP and TCP at the same time, and sends a password that was wrong once
// more to the "primary" KDC. So messages are carried here: to the controllers that
// the agent has chosen, by TCP, each message once, within a deadline.
#pragma once

#include <krb5.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/ad/net/controllers.h"
#include "agent/ad/network.h"

namespace vexagent {

// By an error code of the library. There is none that means success.
struct KrbFailure {
    krb5_error_code code;
    std::string text;
    bool barred = false;  // the agent's own key is refused, or was a short while ago
};

template <class T>
using Krb = Expected<T, KrbFailure>;

// Why a message got no reply.
struct KdcLoss {
    std::string text;
    bool sent;  // it may have arrived
};
// Sends one message to a KDC, once, and reads the reply to it.
using KdcCarrier = std::function<Expected<std::string, KdcLoss>(const Peer& kdc, std::string_view message,
                                                                const Deadline& deadline)>;
Expected<std::string, KdcLoss> carryByTcp(const Peer& kdc, std::string_view message,
                                          const Deadline& deadline);

// One conversation with the KDCs of the forest. It stays with the controller that
// answered first in each realm. For one thread.
class KdcConversation {
  public:
    // The controllers of a realm; null for a realm that is not known.
    using ControllersOf = std::function<Controllers*(const std::string& realm)>;

    KdcConversation(ControllersOf controllersOf, const Deadline& deadline, KdcCarrier carry = carryByTcp)
        : m_controllersOf(std::move(controllersOf)), m_deadline(deadline), m_carry(std::move(carry)) {}

    // Sends one message and gives the reply to it. A message that may not be repeated goes
    // to one controller at most.
    Krb<std::string> exchange(const std::string& realm, std::string_view message, bool repeatable);

    // From now on only controllers are asked that this is true for; null for all.
    using Admits = std::function<bool(const Peer&)>;
    void askOnly(Admits admits) { m_admits = std::move(admits); }

    // Who answered last; no host before the first answer.
    const Peer& answered() const { return m_peer; }

  private:
    std::vector<Peer> order(const std::string& realm, const Controllers& controllers) const;
    void blame(Controllers& controllers, const Peer& peer, const std::string& reason, const Deadline& until);

    const ControllersOf m_controllersOf;
    const Deadline m_deadline;
    const KdcCarrier m_carry;
    Admits m_admits;
    std::string m_realm;  // of m_peer
    Peer m_peer;          // that answered
};

}  // namespace vexagent
