// SPDX-License-Identifier: Apache-2.0
// What all loggers of the process share: the levels and the open places.
#pragma once

#include <atomic>
#include <map>
#include <string>
#include <string_view>

#include "vorn/lock.h"
#include "vorn/log_sinks.h"
#include "vorn/properties.h"

namespace vorn {

// A channel's thresholds as the settings have them, -1 where they say nothing.
struct LogLevels {
    int file;
    int syslog;
};

struct LogRecord {
    int level;
    const std::string& channel;
    const char* sourceLabel;
    int sourceLine;
    const char* function;
    std::string_view text;
};

class LogRegistry {
  public:
    // The one registry, configured from the process-wide settings when nobody
    // has configured it before. Never destroyed, so that threads which outlive
    // main can log.
    static LogRegistry& instance();

    // Counts the changes of the levels; starts at 1.
    unsigned generation() const { return m_generation.load(std::memory_order_acquire); }

    void configure(const Properties& settings);

    // The empty channel is the root, both of whose levels are always set.
    LogLevels levels(const std::string& channel);

    void writeToFile(const LogRecord& record);
    void writeToSyslog(const LogRecord& record);

  private:
    using Levels = std::map<std::string, int, StringCaseLessThan>;

    LogRegistry();
    LogSink fileSink();
    LogSink syslogSink();

    std::atomic<unsigned> m_generation = 0;
    Lock m_lock;
    Levels m_fileLevels;  // guarded by m_lock, as is all below
    Levels m_syslogLevels;
    std::string m_fileName;      // empty: no log file
    bool m_fileFailed = false;   // it could not be opened
    std::string m_fileReported;  // the file whose failure was reported last
    LogSink m_file;              // null: not open
    LogSink m_syslog;            // null: not open
};

}  // namespace vorn
