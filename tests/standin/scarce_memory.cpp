// SPDX-License-Identifier: Apache-2.0
#include "tests/standin/scarce_memory.h"

#include <cstdlib>
#include <new>

#include "tests/standin/inside.h"

namespace {

thread_local std::size_t allocationsLeft = 0;  // 0: any number
thread_local bool hasRunOut = false;
thread_local standin::Scarcity kind = standin::Scarcity::Once;

bool isRefused() {
    if (allocationsLeft == 0 || standin::Inside::any()) return false;
    if (allocationsLeft > 1) {
        --allocationsLeft;
        return false;
    }
    hasRunOut = true;
    if (kind == standin::Scarcity::Once) allocationsLeft = 0;
    return true;
}

}  // namespace

void* operator new(std::size_t size) {
    if (isRefused()) throw std::bad_alloc();
    if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
    throw std::bad_alloc();
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}

namespace standin {

ScarceMemory::ScarceMemory(std::size_t number, Scarcity scarcity) {
    hasRunOut = false;
    kind = scarcity;
    allocationsLeft = number;
}
ScarceMemory::~ScarceMemory() {
    allocationsLeft = 0;
}
bool ScarceMemory::ranOut() const {  // NOLINT(readability-convert-member-functions-to-static)
    return hasRunOut;
}

}  // namespace standin
