// SPDX-License-Identifier: Apache-2.0
// The owner of a file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace vorn {

// Closes its descriptor; a negative number is none.
class Descriptor {
  public:
    explicit Descriptor(int fd) : m_fd(fd) {}
    ~Descriptor() {
        if (m_fd >= 0) ::close(m_fd);
    }
    Descriptor(Descriptor&& other) noexcept : m_fd(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const { return m_fd; }
    int release() { return std::exchange(m_fd, -1); }

  private:
    int m_fd;
};

}  // namespace vorn
