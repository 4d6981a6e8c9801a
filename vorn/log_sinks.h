// SPDX-License-Identifier: Apache-2.0
// The places that log records go to.
#pragma once

#include <memory>
#include <string>

namespace spdlog::sinks {
class sink;
}

namespace vorn {

using LogSink = std::shared_ptr<spdlog::sinks::sink>;

// Appends to a file, each record by one write, so that several processes can
// share it. Throws std::system_error when it cannot be opened.
LogSink openLogFile(const std::string& fileName);

// Writes to syslog, under the name and facility that the process chose.
LogSink openSyslog();

}  // namespace vorn
