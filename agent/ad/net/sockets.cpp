#include "agent/ad/net/sockets.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "vorn/numbers.h"
#include "vorn/signals_blocked.h"

namespace vexagent {
namespace {

constexpr milliseconds kNameTime{300};  // for DNS, where addresses are known from earlier

struct Address {
    sockaddr_storage bytes{};
    socklen_t size = 0;
};

struct FreeAddresses {
    void operator()(addrinfo* list) const { ::freeaddrinfo(list); }
};

// What a look-up that runs on a thread of its own has found.
struct LookUp {
    std::mutex mutex;
    std::condition_variable over;
    bool done = false;  // guarded by mutex, as all below
    int error = 0;      // of getaddrinfo
    std::vector<Address> addresses;
};

int lookUp(const std::string& host, int flags, std::vector<Address>& addresses) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = flags;
    addrinfo* list = nullptr;
    const int error = ::getaddrinfo(host.c_str(), nullptr, &hints, &list);
    if (error != 0) return error;
    const std::unique_ptr<addrinfo, FreeAddresses> owner(list);
    for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
        Address address;
        std::memcpy(&address.bytes, entry->ai_addr, entry->ai_addrlen);
        address.size = entry->ai_addrlen;
        addresses.push_back(address);
    }
    return 0;
}

// The addresses of names, as they were found last. Where DNS has gone they are still
// worth trying.
class KnownAddresses {
  public:
    // Those of a name; fresh tells whether they are from a moment ago.
    std::vector<Address> find(const std::string& host, bool& fresh) {
        const std::lock_guard lock(m_mutex);
        const auto known = m_hosts.find(host);
        fresh = known != m_hosts.end() && now() < known->second.until;
        return known == m_hosts.end() ? std::vector<Address>() : known->second.addresses;
    }

    void keep(const std::string& host, const std::vector<Address>& addresses) {
        const std::lock_guard lock(m_mutex);
        if (m_hosts.size() >= kMost && !m_hosts.contains(host)) m_hosts.clear();
        m_hosts[host] = {addresses, now() + kFreshTime};
    }

  private:
    static constexpr std::size_t kMost = 256;
    static constexpr milliseconds kFreshTime{30'000};
    struct Known {
        std::vector<Address> addresses;
        Moment until;
    };
    std::mutex m_mutex;
    std::map<std::string, Known> m_hosts;  // guarded by m_mutex
};

KnownAddresses& knownAddresses() {
    static KnownAddresses known;
    return known;
}

// The system's resolver takes as long as it likes, so a name is looked up on a
// thread that is left behind when it is late.
int askResolver(const std::string& host, const Deadline& deadline, std::vector<Address>& addresses) {
    const auto state = std::make_shared<LookUp>();
    {
        const vorn::SignalsBlocked blocked;
        std::thread([state, host] {
            std::vector<Address> found;
            const int error = lookUp(host, AI_ADDRCONFIG, found);
            const std::lock_guard lock(state->mutex);
            state->error = error;
            state->addresses = std::move(found);
            state->done = true;
            state->over.notify_one();
        }).detach();
    }
    std::unique_lock lock(state->mutex);
    if (!state->over.wait_until(lock, deadline.end(), [&] { return state->done; })) return EAI_AGAIN;
    addresses = state->addresses;
    return state->error;
}

int lookUpInTime(const std::string& host, const Deadline& deadline, std::vector<Address>& addresses) {
    if (lookUp(host, AI_NUMERICHOST, addresses) == 0) return 0;
    bool fresh = false;
    const std::vector<Address> known = knownAddresses().find(host, fresh);
    int error = 0;
    if (!fresh) error = askResolver(host, known.empty() ? deadline : deadline.atMost(kNameTime), addresses);
    if (!fresh && error == 0) {
        knownAddresses().keep(host, addresses);
        return 0;
    }
    if (known.empty()) return error;
    addresses = known;
    return 0;
}

void setPort(Address& address, std::uint16_t port) {
    if (address.bytes.ss_family == AF_INET)
        reinterpret_cast<sockaddr_in*>(&address.bytes)->sin_port = htons(port);
    else
        reinterpret_cast<sockaddr_in6*>(&address.bytes)->sin6_port = htons(port);
}

// Whether the socket is ready in time.
bool waitFor(int socket, short events, const Deadline& deadline) {
    for (;;) {
        pollfd entry{socket, events, 0};
        const int ready = ::poll(&entry, 1, static_cast<int>(deadline.left().count()));
        if (ready > 0) return true;
        if (ready == 0 || errno != EINTR) return false;
    }
}

vorn::Descriptor connectTo(const Address& address, const Deadline& deadline, int& error) {
    vorn::Descriptor socket(::socket(address.bytes.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    error = errno;
    if (socket.get() < 0) return socket;
    error = 0;
    if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address.bytes), address.size) != 0) {
        error = errno;
        if (error == EINPROGRESS) {
            socklen_t size = sizeof error;
            if (!waitFor(socket.get(), POLLOUT, deadline))
                error = ETIMEDOUT;
            else if (::getsockopt(socket.get(), SOL_SOCKET, SO_ERROR, &error, &size) != 0)
                error = errno;
        }
    }
    if (error != 0) return vorn::Descriptor(-1);
    ::fcntl(socket.get(), F_SETFL, ::fcntl(socket.get(), F_GETFL) & ~O_NONBLOCK);
    const int on = 1;
    ::setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    ::setsockopt(socket.get(), SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    return socket;
}

}  // namespace

bool parsePeer(const std::string& text, std::uint16_t port, Peer& peer) {
    std::string host = text;
    std::string_view number;
    const std::size_t bracket = text.find(']');
    const std::size_t colon = text.rfind(':');
    if (text.starts_with('[') && bracket != std::string::npos) {
        host = text.substr(1, bracket - 1);
        if (bracket + 1 < text.size()) {
            if (text[bracket + 1] != ':') return false;
            number = std::string_view(text).substr(bracket + 2);
            if (number.empty()) return false;
        }
    } else if (colon != std::string::npos && text.find(':') == colon) {
        host = text.substr(0, colon);
        number = std::string_view(text).substr(colon + 1);
        if (number.empty()) return false;
    }
    if (host.empty() || host.find_first_of(" \t/@") != std::string::npos) return false;
    if (!number.empty()) {
        const auto given = vorn::parseNumber<std::uint16_t>(number);
        if (!given || *given == 0) return false;
        port = *given;
    }
    peer = {host, port};
    return true;
}

vorn::Descriptor connectTo(const Peer& peer, const Deadline& deadline, std::string& reason) {
    std::vector<Address> addresses;
    if (const int error = lookUpInTime(peer.host, deadline, addresses); error != 0) {
        reason = peer.host + ": no address: " + ::gai_strerror(error);
        return vorn::Descriptor(-1);
    }
    int error = EHOSTUNREACH;
    for (Address& address : addresses) {
        setPort(address, peer.port);
        vorn::Descriptor socket = connectTo(address, deadline, error);
        if (socket.get() >= 0) return socket;
    }
    reason = peer.host + " port " + std::to_string(peer.port) + ": " + std::strerror(error);
    return vorn::Descriptor(-1);
}

void learnAddresses(const std::string& host, const Deadline& deadline) {
    std::vector<Address> addresses;
    if (!deadline.passed()) lookUpInTime(host, deadline, addresses);
}

bool writeAll(int socket, std::string_view bytes, const Deadline& deadline) {
    while (!bytes.empty()) {
        const ssize_t count = ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count > 0) {
            bytes.remove_prefix(static_cast<std::size_t>(count));
        } else if (errno == EAGAIN) {
            if (!waitFor(socket, POLLOUT, deadline)) return false;
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

bool readExactly(int socket, std::size_t size, std::string& bytes, const Deadline& deadline) {
    bytes.resize(size);
    for (std::size_t at = 0; at < size;) {
        if (!waitFor(socket, POLLIN, deadline)) return false;
        const ssize_t count = ::recv(socket, bytes.data() + at, size - at, MSG_DONTWAIT);
        if (count == 0) return false;
        if (count > 0)
            at += static_cast<std::size_t>(count);
        else if (errno != EAGAIN && errno != EINTR)
            return false;
    }
    return true;
}

bool isDisturbed(int socket) {
    pollfd entry{socket, POLLIN, 0};
    return ::poll(&entry, 1, 0) != 0;
}

}  // namespace vexagent
