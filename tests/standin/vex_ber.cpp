// SPDX-License-Identifier: Apache-2.0
// The BER functions of vex/vex.h, done by liblber.
#include <cstdarg>

#include "tests/standin/inside.h"
#include "tests/standin/state.h"
#include "vex/ber_letter.h"

namespace {

void note(const std::string& line) {
    std::lock_guard guard(standin::state().mutex);
    standin::state().note(line);
}

}  // namespace

extern "C" {

void vex_ber_init2(BerElement* ber, struct berval* value, int options) {
    const standin::Inside inside;
    note("vex_ber_init2(ber, " + std::string(value ? "value" : "null") + ", " + std::to_string(options) +
         ")");
    ber_init2(ber, value, options);
}

int vex_ber_printf(BerElement* ber, const char* format, ...) {
    const standin::Inside inside;
    note("vex_ber_printf(ber, \"" + std::string(format) + "\")");
    {
        std::lock_guard guard(standin::state().mutex);
        if (int code = standin::state().nextAnswer("vex_ber_printf")) return code;
    }
    va_list arguments;
    va_start(arguments, format);
    int written = 0;
    for (; *format && written >= 0; ++format) {
        int more = vex::printLetter(ber, *format, &arguments);
        written = more < 0 ? -1 : written + more;
    }
    va_end(arguments);
    return written;
}

int vex_ber_flatten2(BerElement* ber, struct berval* value, int alloc) {
    const standin::Inside inside;
    note("vex_ber_flatten2(ber, value, " + std::to_string(alloc) + ")");
    {
        std::lock_guard guard(standin::state().mutex);
        if (int code = standin::state().nextAnswer("vex_ber_flatten2")) return code;
    }
    return ber_flatten2(ber, value, alloc);
}

void vex_ber_free_buf(BerElement* ber) {
    const standin::Inside inside;
    note("vex_ber_free_buf(ber)");
    ber_free_buf(ber);
}

void* vex_ber_memcalloc(ber_len_t count, ber_len_t size) {
    note("vex_ber_memcalloc(" + std::to_string(count) + ", " + std::to_string(size) + ")");
    return ber_memcalloc(count, size);
}

void vex_ber_memfree(void* memory) {
    note(memory ? "vex_ber_memfree(memory)" : "vex_ber_memfree(null)");
    ber_memfree(memory);
}

}  // extern "C"
