// SPDX-License-Identifier: Apache-2.0
#include "vorn/log_registry.h"

#include <spdlog/details/log_msg.h>
#include <spdlog/sinks/sink.h>
#include <unistd.h>

#include <cstdio>
#include <optional>
#include <system_error>

#include "vorn/logger.h"
#include "vorn/numbers.h"
#include "vorn/settings.h"

namespace vorn {
namespace {

std::optional<int> parseLevel(std::string_view text) {
    const auto level = parseNumber<int>(text);
    return level && *level >= Logger::kTrace && *level <= Logger::kNothing ? level : std::nullopt;
}

void report(const std::string& line) {
    std::fprintf(stderr, "%s\n", line.c_str());
}

// The levels of the root and of the channels, from settings "log.level" and
// "log.level.CHANNEL" or their twins.
std::map<std::string, int, StringCaseLessThan> readLevels(const Properties& settings, const Setting& root) {
    std::map<std::string, int, StringCaseLessThan> result = {{"", *parseLevel(root.defaultValue)}};
    const std::string_view name = root.name;
    const auto entries = settings.getMap(name);
    for (const auto& [key, value] : *entries) {
        const std::string_view rest = std::string_view(key).substr(name.size());
        if (!rest.empty() && (rest.front() != '.' || rest.size() == 1)) continue;
        const std::optional<int> level = parseLevel(value);
        if (!level) {
            std::string text = settings.origin(key);
            report(text.append(": ").append(key).append(": not a level from 0 to 4: ").append(value));
            continue;
        }
        result.insert_or_assign(std::string(rest.empty() ? rest : rest.substr(1)), *level);
    }
    return result;
}

spdlog::level::level_enum spdlogLevel(int level) {
    switch (level) {
        case Logger::kTrace:
            return spdlog::level::trace;
        case Logger::kInfo:
            return spdlog::level::info;
        case Logger::kWarning:
            return spdlog::level::warn;
        default:
            return spdlog::level::err;
    }
}

void write(const LogSink& sink, const LogRecord& record) {
    if (sink == nullptr) return;
    const spdlog::source_loc source(record.sourceLabel, record.sourceLine, record.function);
    const spdlog::string_view_t text(record.text.data(), record.text.size());
    spdlog::details::log_msg message(source, record.channel, spdlogLevel(record.level), text);
    // spdlog remembers a thread's id, and would go on with it after a fork.
    message.thread_id = static_cast<std::size_t>(gettid());
    sink->log(message);
}

}  // namespace

LogRegistry& LogRegistry::instance() {
    static LogRegistry* const registry = new LogRegistry;
    return *registry;
}

LogRegistry::LogRegistry() {
    try {
        configure(Props(false, false));
    } catch (const PropertiesException& failure) {
        // Whoever needs the settings reports this with more to say about it.
        configure(Properties());
    }
}

void LogRegistry::configure(const Properties& settings) {
    Levels fileLevels = readLevels(settings, SETTING_LOG_LEVEL);
    Levels syslogLevels = readLevels(settings, SETTING_LOG_SYSLOG_LEVEL);
    std::string fileName = loadSetting(SETTING_LOG_FILE, settings);
    const std::lock_guard guard(m_lock);
    m_fileLevels.swap(fileLevels);
    m_syslogLevels.swap(syslogLevels);
    if (m_fileName != fileName) m_fileReported.clear();
    m_fileName.swap(fileName);
    m_fileFailed = false;
    m_file = nullptr;
    m_generation.fetch_add(1, std::memory_order_release);
}

LogLevels LogRegistry::levels(const std::string& channel) {
    const std::lock_guard guard(m_lock);
    const auto find = [&](const Levels& levels) {
        const auto level = levels.find(channel);
        return level == levels.end() ? Logger::kUnset : level->second;
    };
    return {find(m_fileLevels), find(m_syslogLevels)};
}

LogSink LogRegistry::fileSink() {
    const std::lock_guard guard(m_lock);
    if (m_file != nullptr || m_fileName.empty() || m_fileFailed) return m_file;
    try {
        m_file = openLogFile(m_fileName);
    } catch (const std::system_error& failure) {
        m_fileFailed = true;
        if (m_fileReported != m_fileName) {
            report("cannot open the log file " + m_fileName + ": " + failure.code().message());
        }
        m_fileReported = m_fileName;
    }
    return m_file;
}

LogSink LogRegistry::syslogSink() {
    const std::lock_guard guard(m_lock);
    if (m_syslog == nullptr) m_syslog = openSyslog();
    return m_syslog;
}

void LogRegistry::writeToFile(const LogRecord& record) {
    write(fileSink(), record);
}

void LogRegistry::writeToSyslog(const LogRecord& record) {
    write(syslogSink(), record);
}

}  // namespace vorn
