// SPDX-License-Identifier: Apache-2.0
#include "backend/base/log.h"

#include <cstdarg>
#include <cstdio>
#include <memory>

#include "vorn/log_text.h"
#include "vorn/logger.h"
#include "vorn/secret_names.h"

#include "backend/base/slapd.h"

namespace {

// The thread's own, looked up once.
const std::shared_ptr<vorn::Logger>& dirgate() {
    thread_local const auto logger = vorn::Logger::GetThreadPrivateLogger("dirgate");
    return logger;
}

bool admits(const std::shared_ptr<vorn::Logger>& logger, int level) {
    return logger != nullptr && logger->admits(level);
}

// The source label and lines are those that log readers know these records by.
constexpr vorn::LogSource kInformation = {"search", 92, "JPrintf"};
constexpr vorn::LogSource kError = {"search", 105, "JError"};
constexpr char kErrorMark[] = "dirgate ERROR: ";

void inform(const vorn::BoundedLine& line) {
    const auto& logger = dirgate();
    if (admits(logger, vorn::Logger::kInfo)) logger->write(vorn::Logger::kInfo, kInformation, line.text());
    if (slap_debug != 0) std::fprintf(stderr, "%s\n", line.c_str());
}

}  // namespace

void JPrintf(const char* format, ...) {
    if (!JPrintfEnabled()) return;
    vorn::BoundedLine line;
    std::va_list arguments;
    va_start(arguments, format);
    vorn::formatForLog(line, format, arguments);
    va_end(arguments);
    inform(line);
}

void JPrintfLines(const char* introduction, std::string_view lines) {
    if (!JPrintfEnabled()) return;
    vorn::BoundedLine line;
    line.append(introduction);
    vorn::appendForLog(line, lines, vorn::LineEnds::Kept);
    inform(line);
}

void JError(const char* format, ...) {
    vorn::BoundedLine line;
    std::va_list arguments;
    va_start(arguments, format);
    vorn::formatForLog(line, format, arguments);
    va_end(arguments);

    const auto& logger = dirgate();
    if (admits(logger, vorn::Logger::kError)) {
        char marked[sizeof kErrorMark + vorn::BoundedLine::kMost];
        std::snprintf(marked, sizeof marked, "%s%s", kErrorMark, line.c_str());
        logger->write(vorn::Logger::kError, kError, marked);
    }
    std::fprintf(stderr, "%s%s\n", kErrorMark, line.c_str());
}

std::string filterForLog(const std::string& filter) {
    return JPrintfEnabled() ? vorn::withoutSecrets(filter) : std::string();
}

bool JPrintfEnabled() {
    return slap_debug != 0 || admits(dirgate(), vorn::Logger::kInfo);
}
