// SPDX-License-Identifier: Apache-2.0
// Finding services by DNS: SRV records (RFC 2782).
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "vorn/expected.h"

namespace vexagent {

struct SrvRecord {
    std::uint16_t priority = 0;
    std::uint16_t weight = 0;
    std::uint16_t port = 0;
    std::string target;  // without the last dot
};

// The records of a DNS answer; nothing for bytes that are none. A service that is
// decidedly not there (a target of ".") gives no record.
std::optional<std::vector<SrvRecord>> parseSrvAnswer(const unsigned char* bytes, int size);

// In the order in which to ask them: by priority, and within one drawn by weight.
// random gives numbers from 0 up to, not including, 1.
std::vector<SrvRecord> orderRecords(std::vector<SrvRecord> records, const std::function<double()>& random);

// Whether a host's name is a domain's, or stands below it.
bool liesBelow(std::string_view host, std::string_view domain);

// Asks the host's name servers, or one at this address, for the records of a name. The
// reason when there are none or nobody answers; takes a few seconds at most.
vorn::Expected<std::vector<SrvRecord>, std::string> querySrv(const std::string& name,
                                                             const sockaddr_in* nameServer = nullptr);

}  // namespace vexagent
