#include "backend/log.h"

#include <cstdarg>
#include <cstdio>
#include <memory>

#include "vorn/logger.h"

#include "backend/slapd.h"

namespace {

// With the terminating NUL; what is longer is cut without a mark.
constexpr std::size_t kLineBytes = 1022;

class Line {
  public:
    __attribute__((format(printf, 2, 0))) Line(const char* format, std::va_list arguments) {
        std::vsnprintf(m_text, sizeof m_text, format, arguments);
    }
    const char* text() const { return m_text; }

  private:
    char m_text[kLineBytes] = "";
};

// The thread's own, looked up once.
const std::shared_ptr<vorn::Logger>& dirgate() {
    thread_local const auto logger = vorn::Logger::GetThreadPrivateLogger("dirgate");
    return logger;
}

bool admits(const std::shared_ptr<vorn::Logger>& logger, int level) {
    return logger != nullptr && logger->admits(level);
}

}  // namespace

// The source label and lines are those that log readers know these records by.

void JPrintf(const char* format, ...) {
    const auto& logger = dirgate();
    const bool toLogger = admits(logger, vorn::Logger::kInfo);
    if (!toLogger && slap_debug == 0) return;

    std::va_list arguments;
    va_start(arguments, format);
    const Line line(format, arguments);
    va_end(arguments);
    if (toLogger) logger->log(vorn::Logger::kInfo, "search", 92, "JPrintf", "%s", line.text());
    if (slap_debug != 0) std::fprintf(stderr, "%s\n", line.text());
}

void JError(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    const Line line(format, arguments);
    va_end(arguments);

    const auto& logger = dirgate();
    if (admits(logger, vorn::Logger::kError)) {
        logger->log(vorn::Logger::kError, "search", 105, "JError", "dirgate ERROR: %s", line.text());
    }
    std::fprintf(stderr, "dirgate ERROR: %s\n", line.text());
}

bool JPrintfEnabled() {
    return slap_debug != 0 || admits(dirgate(), vorn::Logger::kInfo);
}
