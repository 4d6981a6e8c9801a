// SPDX-License-Identifier: Apache-2.0
// Whether the calling thread is within a stand-in: for tests that take memory away from
// the code under test alone.
#pragma once

namespace standin {

class Inside {
  public:
    Inside() { ++s_depth; }
    ~Inside() { --s_depth; }
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;

    static bool any() { return s_depth > 0; }

  private:
    static inline thread_local int s_depth = 0;
};

}  // namespace standin
