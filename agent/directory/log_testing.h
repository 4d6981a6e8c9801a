// SPDX-License-Identifier: Apache-2.0
// What the agent writes into its log, caught.
#pragma once

#include <string>

#include "vorn/logger.h"
#include "vorn/properties.h"
#include "vorn/temporary_folder_testing.h"

namespace vexagent::test {

// Records of every level while it lives; nobody hears them before and after.
class CapturedLog {
  public:
    CapturedLog() {
        configure("log.file = " + m_folder.file("log") + "\nlog.level = 0\nlog.syslog.level = 4\n");
    }
    ~CapturedLog() { configure("log.level = 4\nlog.syslog.level = 4\n"); }
    CapturedLog(const CapturedLog&) = delete;
    CapturedLog& operator=(const CapturedLog&) = delete;

    // All of them so far, a line each.
    std::string text() const { return vorn::test::TemporaryFolder::read(m_folder.file("log")); }

  private:
    static void configure(const std::string& text) {
        vorn::Properties settings;
        settings.parse(text, "captured log");
        vorn::Logger::ReconfigureLevels(settings);
    }

    vorn::test::TemporaryFolder m_folder;
};

}  // namespace vexagent::test
