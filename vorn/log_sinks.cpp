// SPDX-License-Identifier: Apache-2.0
#include "vorn/log_sinks.h"

#include <fcntl.h>
#include <spdlog/sinks/base_sink.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <system_error>

#include "vorn/descriptor.h"

namespace vorn {
namespace {

constexpr const char* kFilePattern = "%Y-%m-%d %H:%M:%S.%e %l %n %P %t %g:%# %! %v";
constexpr const char* kSyslogPattern = "%n %g:%# %! %v";

// Not spdlog's own file sink: that one creates missing folders, waits between
// attempts to open and leaves the file open in child processes.
class FileSink : public spdlog::sinks::base_sink<std::mutex> {
  public:
    explicit FileSink(const std::string& fileName)
        : m_fd(::open(fileName.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0640)) {
        if (m_fd.get() < 0) throw std::system_error(errno, std::generic_category());
    }

  protected:
    void sink_it_(const spdlog::details::log_msg& record) override {
        spdlog::memory_buf_t line;
        formatter_->format(record, line);
        const char* next = line.data();
        std::size_t left = line.size();
        while (left > 0) {
            const ssize_t written = ::write(m_fd.get(), next, left);
            if (written < 0 && errno == EINTR) continue;
            if (written <= 0) return;  // a full disk must not stop the service
            next += written;
            left -= static_cast<std::size_t>(written);
        }
    }
    void flush_() override {}

  private:
    const Descriptor m_fd;
};

// Not spdlog's own syslog sink: that one calls openlog, which would give another
// name and facility to everything else that the process sends to syslog.
class SyslogSink : public spdlog::sinks::base_sink<std::mutex> {
  protected:
    void sink_it_(const spdlog::details::log_msg& record) override {
        spdlog::memory_buf_t line;
        formatter_->format(record, line);
        line.push_back('\0');
        ::syslog(priority(record.level), "%s", line.data());
    }
    void flush_() override {}

  private:
    static int priority(spdlog::level::level_enum level) {
        switch (level) {
            case spdlog::level::trace:
                return LOG_DEBUG;
            case spdlog::level::info:
                return LOG_INFO;
            case spdlog::level::warn:
                return LOG_WARNING;
            default:
                return LOG_ERR;
        }
    }
};

}  // namespace

LogSink openLogFile(const std::string& fileName) {
    auto sink = std::make_shared<FileSink>(fileName);
    sink->set_pattern(kFilePattern);
    return sink;
}

LogSink openSyslog() {
    auto sink = std::make_shared<SyslogSink>();
    sink->set_pattern(kSyslogPattern);
    return sink;
}

}  // namespace vorn
