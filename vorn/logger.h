// SPDX-License-Identifier: Apache-2.0
// Named log channels.
//
// A channel's name is a path of words joined by full stops; its parent is the
// name without the last word, and the parent of a one-word channel is the root,
// whose name is empty. A channel has two thresholds, one for each place that
// records go to: the log file and syslog. A threshold is a level, or -1 when it
// is not set and the parent's holds. Levels grow with severity:
// 0 trace, 1 information, 2 warning, 3 error, 4 nothing at all.
//
// Levels and the file come from the process-wide settings (log.file, log.level,
// log.level.CHANNEL and their syslog twins); a value that is not a level is
// reported on standard error and passed over. No thread is made, and no place is
// opened before the first record that goes there: a process may fork after it has
// logged. A log file that cannot be opened is reported on standard error, once,
// and logging goes on without it. In syslog, records stand under the name and the
// facility of the process.
//
// A record of the log file is one line: local time with milliseconds, level,
// channel, process id, thread id, source label and line, function, text.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <string_view>

#include "vorn/properties.h"

namespace vorn {

// Where a record says that it comes from.
struct LogSource {
    const char* label;
    int line;
    const char* function;
};

class Logger {
  public:
    static constexpr int kUnset = -1;
    static constexpr int kTrace = 0;
    static constexpr int kInfo = 1;
    static constexpr int kWarning = 2;
    static constexpr int kError = 3;
    static constexpr int kNothing = 4;

    // The calling thread's logger for a channel; costs no lock once the thread
    // has it, unless the levels were reloaded meanwhile. Never null save when
    // memory is exhausted.
    static std::shared_ptr<Logger> GetThreadPrivateLogger(std::string_view channel);

    // Reads log.file and the levels anew; loggers that threads hold follow at
    // their next use. The log file is opened again at the next record, so that
    // one that was renamed is let go of.
    static void ReconfigureLevels(const Properties& settings);

    // A logger with thresholds of its own, which ReconfigureLevels leaves alone.
    // Without a parent and a threshold it admits nothing.
    Logger(std::string channel, int fileThreshold, int syslogThreshold, std::shared_ptr<Logger> parent);

    // The threshold, taken from the nearest ancestor that sets it; the answer
    // is stored here, so that the walk is done once.
    int fileThreshold();
    int syslogThreshold();

    // Whether a record of this level goes anywhere.
    bool admits(int level);

    // Writes one record to each place whose threshold admits it. The text is
    // never cut; what is put into it is escaped (see log_text.h). Leaves errno alone and
    // throws nothing.
    void log(int level, const char* sourceLabel, int sourceLine, const char* function, const char* format,
             ...) __attribute__((format(printf, 6, 7)));

    // The same with a text that is made already, and stands as it is.
    void write(int level, const LogSource& source, std::string_view text);

    const std::string& channel() const { return m_channel; }

  private:
    using Threshold = std::atomic<int>;

    static std::shared_ptr<Logger> makeForThread(std::string_view channel);
    int current(Threshold Logger::*threshold);
    int resolve(Threshold Logger::*threshold);
    int inherit(Threshold Logger::*threshold);
    void followSettings();
    void takeLevels(unsigned generation);

    const std::string m_channel;
    // Atomic so that a handle that strays into another thread does no harm.
    Threshold m_fileThreshold;
    Threshold m_syslogThreshold;
    const std::shared_ptr<Logger> m_parent;
    bool m_followsSettings = false;
    std::atomic<unsigned> m_generation = 0;  // of the levels that the thresholds are from
};

}  // namespace vorn
