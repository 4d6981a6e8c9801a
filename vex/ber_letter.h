// SPDX-License-Identifier: Apache-2.0
// One letter of a format of vex_ber_printf.
#pragma once

#include <cstdarg>

#include "vex/vex.h"

namespace vex {

// liblber has no form of ber_printf that takes a va_list, so a format is given
// to it letter by letter. The element itself remembers what spans letters: a tag
// that "t" sets, and the sequences and sets that are open. -1 for an unknown letter.
inline int printLetter(BerElement* ber, char letter, va_list* arguments) {
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

}  // namespace vex
