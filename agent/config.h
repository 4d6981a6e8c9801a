// SPDX-License-Identifier: Apache-2.0
// The agent's settings, checked.
#pragma once

#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "agent/ad/options.h"
#include "agent/server/server.h"
#include "agent/server/socket_file.h"
#include "vorn/properties.h"

namespace vexagent {

// A setting that cannot be; what() is "FILE:LINE: reason", or "FILE: reason" for
// one that is missing.
class SettingsError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

enum class DirectoryKind { Embedded, Ad };

struct Config {
    SocketOptions socket;
    ServerOptions server;
    int threads = 4;
    bool passwordChange = false;
    DirectoryKind directory = DirectoryKind::Embedded;
    AdOptions ad;          // for DirectoryKind::Ad
    std::string database;  // for DirectoryKind::Embedded, as the next
    std::string ldif;      // empty: the database must exist
    std::string domain;
    std::string zone;  // the zone's DN; may be empty
    std::vector<std::string> loginAttributes;
    std::uint32_t leastId = 1;  // that hosts are shown
};

// Reads the settings; file names them in complaints about what is missing.
// Throws SettingsError. Not for several threads at once: it looks up a group.
Config readConfig(const vorn::Properties& settings, const std::string& file);

}  // namespace vexagent
