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
// log.level.CHANNEL and their syslog twins). Neither a thread nor a connection is
// made: a process may fork after it has logged.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "vorn/properties.h"

namespace vorn {

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
    // their next use.
    static void ReconfigureLevels(const Properties& settings);

    Logger(std::string channel, int fileThreshold, int syslogThreshold, std::shared_ptr<Logger> parent);

    // The threshold, taken from the nearest ancestor that sets it; the answer
    // is stored here, so that the walk is done once.
    int fileThreshold() { return resolve(&Logger::m_fileThreshold); }
    int syslogThreshold() { return resolve(&Logger::m_syslogThreshold); }

    // Whether a record of this level goes anywhere.
    bool admits(int level) { return fileThreshold() <= level || syslogThreshold() <= level; }

    // Writes one record to each place whose threshold admits it.
    void log(int level, const char* sourceLabel, int sourceLine, const char* function, const char* format,
             ...) __attribute__((format(printf, 6, 7)));

    const std::string& channel() const { return m_channel; }

  private:
    int resolve(int Logger::*threshold);

    const std::string m_channel;
    int m_fileThreshold;
    int m_syslogThreshold;
    const std::shared_ptr<Logger> m_parent;
};

}  // namespace vorn
