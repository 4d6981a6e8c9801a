// The BER functions of vex/vex.h, done by liblber.
#include <cstdarg>

#include "vex/vex.h"

namespace {

// liblber has no form of ber_printf that takes a va_list, so a format is given
// to it letter by letter. The element itself remembers what spans letters: a tag
// that "t" sets, and the sequences and sets that are open.
int printOne(BerElement* ber, char letter, va_list* arguments) {
    const char format[] = {letter, '\0'};
    switch (letter) {
        // NOLINTNEXTLINE(bugprone-branch-clone): of one shape, and each of another type
        case 'b':
        case 'e':
        case 'i':
            return ber_printf(ber, format, va_arg(*arguments, ber_int_t));
        case 't':
            return ber_printf(ber, format, va_arg(*arguments, ber_tag_t));
        case 's':
            return ber_printf(ber, format, va_arg(*arguments, char*));
        case 'O':
            return ber_printf(ber, format, va_arg(*arguments, struct berval*));
        case 'v':
            return ber_printf(ber, format, va_arg(*arguments, char**));
        case 'V':
            return ber_printf(ber, format, va_arg(*arguments, struct berval**));
        case 'W':
            return ber_printf(ber, format, va_arg(*arguments, struct berval*));
        case 'B': {
            char* bits = va_arg(*arguments, char*);
            return ber_printf(ber, format, bits, va_arg(*arguments, int));
        }
        case 'o': {
            char* bytes = va_arg(*arguments, char*);
            return ber_printf(ber, format, bytes, va_arg(*arguments, ber_len_t));
        }
        case 'n':
        case 'N':
        case '{':
        case '}':
        case '[':
        case ']':
            return ber_printf(ber, format);
        default:
            return -1;
    }
}

}  // namespace

void vex_ber_init2(BerElement* ber, struct berval* value, int options) {
    ber_init2(ber, value, options);
}

int vex_ber_printf(BerElement* ber, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    // As there, the answer is that for the last letter.
    int result = 0;
    for (; *format && result >= 0; ++format) result = printOne(ber, *format, &arguments);
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
