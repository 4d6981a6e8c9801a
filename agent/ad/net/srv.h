// Finding services by DNS: SRV records (RFC 2782).
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/ad/net/deadline.h"

namespace vexagent {

struct SrvRecord {
    std::uint16_t priority = 0;
    std::uint16_t weight = 0;
    std::uint16_t port = 0;
    std::string target;  // without the last dot
};

// The records of a DNS answer; false for bytes that are none. A service that is
// decidedly not there (a target of ".") gives no record.
bool parseSrvAnswer(const unsigned char* bytes, int size, std::vector<SrvRecord>& records);

// In the order in which to ask them: by priority, and within one drawn by weight.
// random gives numbers from 0 up to, not including, 1.
std::vector<SrvRecord> orderRecords(std::vector<SrvRecord> records, const std::function<double()>& random);

// Whether a host's name is a domain's, or stands below it.
bool liesBelow(std::string_view host, std::string_view domain);

// Asks the host's name servers for the records of a name. False with the reason
// when there are none or nobody answers; takes a few seconds at most.
bool querySrv(const std::string& name, std::vector<SrvRecord>& records, std::string& reason);

}  // namespace vexagent
