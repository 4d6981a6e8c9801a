// SPDX-License-Identifier: Apache-2.0
// The addresses of hosts, from the name service in time or from what was known last.
#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "vorn/clock.h"
#include "vorn/deadline.h"
#include "vorn/expected.h"

namespace vexagent {

struct Address {
    sockaddr_storage bytes{};
    socklen_t size = 0;
};

// What was found out last. Knows no network and no clock. Safe for several threads.
class KnownAddresses {
  public:
    struct Known {
        std::vector<Address> addresses;
        bool fresh;  // from a moment ago
    };
    std::optional<Known> find(const std::string& host, vorn::Moment now) const;
    void keep(const std::string& host, std::vector<Address> addresses, vorn::Moment now);

    static constexpr std::size_t kMost = 256;  // hosts; then all are forgotten
    static constexpr std::chrono::milliseconds kFreshTime{30'000};

  private:
    struct Found {
        std::vector<Address> addresses;
        vorn::Moment freshUntil;
    };
    mutable std::mutex m_mutex;
    std::map<std::string, Found> m_hosts;  // guarded by m_mutex
};

// Those of a host's name or of an address as text; an error of getaddrinfo's. The name
// service is waited for until the deadline, or shortly where addresses are known already.
vorn::Expected<std::vector<Address>, int> addressesOf(const std::string& host,
                                                      const vorn::Deadline& deadline);

}  // namespace vexagent
