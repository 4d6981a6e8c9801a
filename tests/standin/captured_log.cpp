// SPDX-License-Identifier: Apache-2.0
#include "tests/standin/captured.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string_view>

#include "vorn/logger.h"
#include "vorn/properties.h"

namespace standin {

namespace {

void configure(const std::string& text) {
    vorn::Properties settings;
    settings.parse(text, "captured log");
    vorn::Logger::ReconfigureLevels(settings);
}

// What a record says, without what the logger puts before it. Only information by
// JPrintf and an error by JError are records of the module; a line that is neither is
// a further line of the record above, and all of it is text.
std::string_view textOf(std::string_view line) {
    static constexpr struct {
        std::string_view level;
        std::string_view source;
    } kKinds[] = {{" info dirgate ", " search:92 JPrintf "}, {" error dirgate ", " search:105 JError "}};
    for (const auto& kind : kKinds) {
        const std::size_t source = line.find(kind.source);
        if (source == std::string_view::npos || line.find(kind.level) > source) continue;
        return line.substr(source + kind.source.size());
    }
    return line;
}

}  // namespace

CapturedLog::CapturedLog(int level) {
    char name[] = "/tmp/captured-log-XXXXXX";
    m_folder = mkdtemp(name);
    configure("log.file = " + m_folder + "/log\nlog.level = 4\nlog.syslog.level = 4\nlog.level.dirgate = " +
              std::to_string(level) + "\n");
}

CapturedLog::~CapturedLog() {
    configure("log.level = 4\nlog.syslog.level = 4\n");
    std::filesystem::remove_all(m_folder);
}

std::vector<std::string> CapturedLog::records() const {
    std::ifstream file(m_folder + "/log");
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    return lines;
}

int CapturedLog::count(const std::string& text) const {
    int found = 0;
    for (const std::string& line : records()) found += textOf(line) == text;
    return found;
}

}  // namespace standin
