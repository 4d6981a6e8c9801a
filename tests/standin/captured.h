// SPDX-License-Identifier: Apache-2.0
// What the code under test says, caught: standard error, and the log channel
// "dirgate".
#pragma once

#include <string>
#include <vector>

namespace standin {

// Catches file descriptor 2 while it lives; what it caught is not shown.
class CapturedStderr {
  public:
    CapturedStderr();
    ~CapturedStderr();
    CapturedStderr(const CapturedStderr&) = delete;
    CapturedStderr& operator=(const CapturedStderr&) = delete;

    // All text so far.
    std::string text() const;

  private:
    int m_saved;
    int m_file;
};

// Sends the channel "dirgate" to a file of its own while it lives, at trace level;
// every other channel is silent. The records of a file are read back as lines.
class CapturedLog {
  public:
    explicit CapturedLog(int level = 0);
    ~CapturedLog();
    CapturedLog(const CapturedLog&) = delete;
    CapturedLog& operator=(const CapturedLog&) = delete;

    // The records so far, each whole with what the logger puts before its text.
    std::vector<std::string> records() const;
    // How many records, or lines of them, are exactly this text: that of a JPrintf, or that
    // of a JError with its "dirgate ERROR: " before it.
    int count(const std::string& text) const;
    bool has(const std::string& text) const { return count(text) > 0; }

  private:
    std::string m_folder;
};

}  // namespace standin
