// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/kdc.h"

#include <algorithm>

#include "agent/ad/net/sockets.h"

namespace vexagent {
namespace {

constexpr std::uint16_t kKdcPort = 88;
constexpr std::size_t kLargestReply = std::size_t{1} << 20;

// A message as it goes over TCP: behind its size.
std::string framed(std::string_view message) {
    std::string frame;
    for (int shift = 24; shift >= 0; shift -= 8)
        frame.push_back(static_cast<char>(message.size() >> shift & 0xff));
    return frame.append(message);
}

std::size_t sizeIn(std::string_view header) {
    std::size_t size = 0;
    for (const char byte : header) size = size << 8 | static_cast<unsigned char>(byte);
    return size;
}

}  // namespace

Expected<std::string, KdcLoss> carryByTcp(const Peer& kdc, std::string_view message,
                                          const Deadline& deadline) {
    const auto socket = connectTo(kdc, deadline.atMost(kConnectTime));
    if (!socket) return vorn::unexpected(KdcLoss{socket.error(), false});
    const int descriptor = socket->get();
    const std::optional<std::string> header =
        writeAll(descriptor, framed(message), deadline) ? readExactly(descriptor, 4, deadline) : std::nullopt;
    const std::string name = kdc.host + " port " + std::to_string(kdc.port);
    if (!header) return vorn::unexpected(KdcLoss{name + ": no answer", true});
    const std::size_t size = sizeIn(*header);
    std::optional<std::string> reply;
    if (size > 0 && size <= kLargestReply) reply = readExactly(descriptor, size, deadline);
    if (!reply) return vorn::unexpected(KdcLoss{name + ": no whole answer", true});
    return std::move(*reply);
}

// The one that has answered in this realm first.
std::vector<Peer> KdcConversation::order(const std::string& realm, const Controllers& controllers) const {
    std::vector<Peer> peers;
    for (const Controllers::Choice& choice : controllers.order(m_deadline.clock().now()))
        peers.push_back(choice.peer);
    std::stable_partition(peers.begin(), peers.end(),
                          [&](const Peer& peer) { return realm == m_realm && peer == m_peer; });
    return peers;
}

// One that had less time than it might need is at fault only if it says nothing at all.
void KdcConversation::blame(Controllers& controllers, const Peer& peer, const std::string& reason,
                            const Deadline& until) {
    const bool hurried = until.passed() && m_deadline.left() < kPatience;
    controllers.failed(peer, m_deadline.clock().now(), reason,
                       hurried ? std::optional(m_deadline.begin()) : std::nullopt);
}

Krb<std::string> KdcConversation::exchange(const std::string& realm, std::string_view message,
                                           bool repeatable) {
    Controllers* controllers = m_controllersOf(realm);
    if (controllers == nullptr)
        return vorn::unexpected(KrbFailure{KRB5_REALM_UNKNOWN, "no controllers of the realm " + realm});
    std::vector<Peer> peers = order(realm, *controllers);
    const auto barred = [this](const Peer& peer) { return m_admits && !m_admits(peer); };
    if (std::erase_if(peers, barred) != 0 && peers.empty())
        return vorn::unexpected(KrbFailure{
            KRB5_KDC_UNREACH, "the domain refuses the machine's key; it is tried again later", true});
    KrbFailure failure{KRB5_KDC_UNREACH, "no controller of the realm " + realm + " is known"};
    for (std::size_t i = 0; i < peers.size() && !m_deadline.passed(); ++i) {
        const bool last = i + 1 == peers.size() || !repeatable;
        const Deadline until = last ? m_deadline : withPatience(m_deadline);
        auto reply = m_carry({peers[i].host, kKdcPort}, message, until);
        if (reply) {
            m_realm = realm;
            m_peer = peers[i];
            return std::move(*reply);
        }
        failure.text = reply.error().text;
        blame(*controllers, peers[i], failure.text, until);
        if (reply.error().sent && !repeatable) break;
    }
    return vorn::unexpected(failure);
}

}  // namespace vexagent
