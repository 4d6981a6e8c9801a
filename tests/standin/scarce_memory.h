// SPDX-License-Identifier: Apache-2.0
// Memory that runs out at a chosen moment. A program that is linked with this has an
// operator new that fails when a test says so.
//
//     for (std::size_t n = 1;; ++n) {
//         bool failed = false;
//         { standin::ScarceMemory scarce(n); try { work(); } catch (const std::bad_alloc&) {} failed =
//         scarce.ranOut(); }
//         ... what must hold however far the work got ...
//         if (!failed) break;  // it needs no more than that
//     }
#pragma once

#include <cstddef>

namespace standin {

enum class Scarcity { Once, Lasting };

// While it lives, the calling thread's allocation of that number, counted from 1, fails
// with std::bad_alloc, and where the scarcity lasts, so do those after it; others succeed,
// and those of stand-ins do not count. One at a time a thread.
class ScarceMemory {
  public:
    explicit ScarceMemory(std::size_t number, Scarcity scarcity = Scarcity::Once);
    ~ScarceMemory();
    ScarceMemory(const ScarceMemory&) = delete;
    ScarceMemory& operator=(const ScarceMemory&) = delete;

    // Whether that allocation was asked for.
    bool ranOut() const;
};

}  // namespace standin
