// Overwriting secrets.
#pragma once

#include <cstddef>
#include <string>

namespace vorn {

// Overwrites memory with zeros in a way that the optimiser cannot drop.
void wipe(void* memory, std::size_t size);

// Overwrites a string's characters and everything else in its buffer, up to its
// capacity (the short-string buffer included), and empties it. The buffer itself
// is kept.
void wipe(std::string& text);

}  // namespace vorn
