// SPDX-License-Identifier: Apache-2.0
// How the values of attributes are compared.
#pragma once

#include <span>
#include <string_view>

namespace vexagent {

// Whether the attribute's values are compared as numbers.
bool isIntegerAttribute(std::string_view attribute);

// Whether the attribute's values are text that is compared without regard to case.
// Not so the object's own DN, which is no text.
bool ignoresCase(std::string_view attribute);

// Whether the attribute's values are bytes of any kind, by its name or its ";binary".
// All others are text.
bool isBinaryAttribute(std::string_view attribute);

// Those that are compared as numbers, and those that are compared byte by byte.
std::span<const std::string_view> integerAttributes();
std::span<const std::string_view> exactAttributes();

}  // namespace vexagent
