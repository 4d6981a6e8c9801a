// SPDX-License-Identifier: Apache-2.0
// UTF-8 (RFC 3629).
#pragma once

#include <cstddef>
#include <string_view>

namespace vorn {

// The length of the character that the text begins with; 0 for empty text and for
// bytes that are none: overlong forms, surrogates, what lies beyond Unicode.
std::size_t utf8Length(std::string_view text);

// Whether all of the text is UTF-8.
bool isUtf8(std::string_view text);

}  // namespace vorn
