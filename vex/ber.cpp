// SPDX-License-Identifier: Apache-2.0
// The BER functions of vex/vex.h, done by liblber.
#include <cstdarg>

#include "vex/ber_letter.h"
#include "vex/vex.h"

void vex_ber_init2(BerElement* ber, struct berval* value, int options) {
    ber_init2(ber, value, options);
}

int vex_ber_printf(BerElement* ber, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    // As there, the answer is that for the last letter.
    int result = 0;
    for (; *format && result >= 0; ++format) result = vex::printLetter(ber, *format, &arguments);
    va_end(arguments);
    return result;
}

int vex_ber_flatten2(BerElement* ber, struct berval* value, int alloc) {
    return ber_flatten2(ber, value, alloc);
}

void vex_ber_free_buf(BerElement* ber) {
    ber_free_buf(ber);
}

void* vex_ber_memcalloc(ber_len_t count, ber_len_t size) {
    return ber_memcalloc(count, size);
}

void vex_ber_memfree(void* memory) {
    ber_memfree(memory);
}
