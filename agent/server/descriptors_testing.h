// SPDX-License-Identifier: Apache-2.0
// How many descriptors this process has, and may have, for tests.
#pragma once

#include <sys/resource.h>
#include <unistd.h>

namespace vexagent {

// The number that the next descriptor would have.
inline int lowestFree() {
    const int lowest = ::dup(STDIN_FILENO);
    ::close(lowest);
    return lowest;
}

// As long as it lives only so many more can be had.
class FewDescriptors {
  public:
    explicit FewDescriptors(int more) {
        const auto most = static_cast<rlim_t>(lowestFree() + more);
        ::getrlimit(RLIMIT_NOFILE, &m_usual);
        const rlimit few{most, m_usual.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &few);
    }
    ~FewDescriptors() { ::setrlimit(RLIMIT_NOFILE, &m_usual); }
    FewDescriptors(const FewDescriptors&) = delete;
    FewDescriptors& operator=(const FewDescriptors&) = delete;

  private:
    rlimit m_usual{};
};

}  // namespace vexagent
