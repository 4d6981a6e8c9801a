#include "agent/wiping_memory.h"

#include <lber.h>
#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "vorn/secret.h"

namespace vexagent {
namespace {

void* allocate(ber_len_t size, void*) {
    return std::malloc(size);
}

void* allocateZeroed(ber_len_t count, ber_len_t size, void*) {
    return std::calloc(count, size);
}

void wipeAndFree(void* memory, void*) {
    if (memory == nullptr) return;
    vorn::wipe(memory, ::malloc_usable_size(memory));
    std::free(memory);
}

// What realloc leaves behind when it moves would stay as it was.
void* reallocate(void* memory, ber_len_t size, void* context) {
    if (memory == nullptr) return std::malloc(size);
    void* moved = std::malloc(size);
    if (moved == nullptr) return nullptr;
    std::memcpy(moved, memory, std::min<std::size_t>(size, ::malloc_usable_size(memory)));
    wipeAndFree(memory, context);
    return moved;
}

}  // namespace

bool wipeLdapMemory() {
    // The library keeps the pointer's target by value.
    BerMemoryFunctions functions = {allocate, allocateZeroed, reallocate, wipeAndFree};
    return ber_set_option(nullptr, LBER_OPT_MEMORY_FNS, &functions) == LBER_OPT_SUCCESS;
}

}  // namespace vexagent
