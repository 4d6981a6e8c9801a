// SPDX-License-Identifier: Apache-2.0
#include "vorn/logger.h"

#include <cerrno>
#include <cstdarg>
#include <map>
#include <new>

#include "vorn/log_registry.h"
#include "vorn/log_text.h"

namespace vorn {
namespace {

// Whether the thread's table of loggers is gone already: another thread-local
// object may log from its destructor.
thread_local bool tableIsGone = false;

struct ThreadLoggers {
    std::map<std::string, std::shared_ptr<Logger>, std::less<>> byChannel;
    ~ThreadLoggers() { tableIsGone = true; }
};

thread_local ThreadLoggers threadLoggers;

const char* orEmpty(const char* text) {
    return text != nullptr ? text : "";
}

}  // namespace

Logger::Logger(std::string channel, int fileThreshold, int syslogThreshold, std::shared_ptr<Logger> parent)
    : m_channel(std::move(channel)),
      m_fileThreshold(fileThreshold),
      m_syslogThreshold(syslogThreshold),
      m_parent(std::move(parent)) {}

std::shared_ptr<Logger> Logger::GetThreadPrivateLogger(std::string_view channel) {
    try {
        if (tableIsGone) return makeForThread(channel);
        const auto known = threadLoggers.byChannel.find(channel);
        if (known != threadLoggers.byChannel.end()) return known->second;
        auto logger = makeForThread(channel);
        threadLoggers.byChannel.emplace(channel, logger);
        return logger;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

std::shared_ptr<Logger> Logger::makeForThread(std::string_view channel) {
    std::shared_ptr<Logger> parent;
    if (!channel.empty()) {
        const std::size_t stop = channel.rfind('.');
        parent = GetThreadPrivateLogger(stop == std::string_view::npos ? "" : channel.substr(0, stop));
    }
    auto logger = std::make_shared<Logger>(std::string(channel), kUnset, kUnset, std::move(parent));
    logger->m_followsSettings = true;
    return logger;
}

void Logger::ReconfigureLevels(const Properties& settings) {
    LogRegistry::instance().configure(settings);
}

// The two steps of each look at a threshold; what they seldom need stands apart.

inline void Logger::followSettings() {
    if (!m_followsSettings) return;
    const unsigned generation = LogRegistry::instance().generation();
    if (m_generation.load(std::memory_order_relaxed) != generation) takeLevels(generation);
}

// After followSettings.
inline int Logger::resolve(Threshold Logger::*threshold) {
    const int own = (this->*threshold).load(std::memory_order_relaxed);
    return own != kUnset ? own : inherit(threshold);
}

int Logger::fileThreshold() {
    return current(&Logger::m_fileThreshold);
}

int Logger::syslogThreshold() {
    return current(&Logger::m_syslogThreshold);
}

int Logger::current(Threshold Logger::*threshold) {
    followSettings();
    return resolve(threshold);
}

bool Logger::admits(int level) {
    followSettings();
    return resolve(&Logger::m_fileThreshold) <= level || resolve(&Logger::m_syslogThreshold) <= level;
}

int Logger::inherit(Threshold Logger::*threshold) {
    const int inherited = m_parent == nullptr ? kNothing : m_parent->current(threshold);
    (this->*threshold).store(inherited, std::memory_order_relaxed);
    return inherited;
}

// Forgets what was taken from ancestors as well, since theirs may have changed.
void Logger::takeLevels(unsigned generation) {
    const LogLevels levels = LogRegistry::instance().levels(m_channel);
    m_fileThreshold.store(levels.file, std::memory_order_relaxed);
    m_syslogThreshold.store(levels.syslog, std::memory_order_relaxed);
    m_generation.store(generation, std::memory_order_relaxed);
}

void Logger::log(int level, const char* sourceLabel, int sourceLine, const char* function, const char* format,
                 ...) {
    const int savedErrno = errno;
    std::va_list arguments;
    va_start(arguments, format);
    try {
        if (admits(level)) {
            std::string text;
            formatForLog(text, format, arguments);
            write(level, {sourceLabel, sourceLine, function}, text);
        }
    } catch (const std::exception&) {
        // Out of memory: the record is lost, the caller's work is not.
    }
    va_end(arguments);
    errno = savedErrno;
}

void Logger::write(int level, const LogSource& source, std::string_view text) {
    const int savedErrno = errno;
    try {
        const LogRecord record = {
            level, m_channel, orEmpty(source.label), source.line, orEmpty(source.function), text};
        if (fileThreshold() <= level) LogRegistry::instance().writeToFile(record);
        if (syslogThreshold() <= level) LogRegistry::instance().writeToSyslog(record);
    } catch (const std::exception&) {
        // As above.
    }
    errno = savedErrno;
}

}  // namespace vorn
