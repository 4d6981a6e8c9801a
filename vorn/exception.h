// SPDX-License-Identifier: Apache-2.0
// The exceptions that cross a boundary inside the system. None of them ever
// crosses a C interface.
#pragma once

#include <stdexcept>
#include <string>

namespace vorn {

// A failure with the code of whoever raised it (0 where there is none).
class VORNException : public std::runtime_error {
  public:
    VORNException(const std::string& message, int code) : VORNException(message, "VORNException", code) {}
    VORNException(const std::string& message, std::string className, int code)
        : std::runtime_error(message), m_className(std::move(className)), m_code(code) {}

    const std::string& className() const { return m_className; }
    int code() const { return m_code; }

  private:
    std::string m_className;
    int m_code;
};

}  // namespace vorn
