#include "tests/standin/captured.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "vorn/logger.h"
#include "vorn/properties.h"

namespace standin {

namespace {

void configure(const std::string& text) {
    vorn::Properties settings;
    settings.parse(text, "captured log");
    vorn::Logger::ReconfigureLevels(settings);
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
    for (const std::string& line : records()) found += line.ends_with(text);
    return found;
}

}  // namespace standin
