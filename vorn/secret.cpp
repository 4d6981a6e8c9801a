#include "vorn/secret.h"

#include <cstring>

namespace vorn {
namespace {

// resize within the capacity never moves the text, and it makes every byte of the
// buffer one of the string's own characters.
void wipeBuffer(std::string& text) {
    text.resize(text.capacity());
    wipe(text.data(), text.size());
    text.clear();
}

}  // namespace

void wipe(void* memory, std::size_t size) {
    if (size != 0) explicit_bzero(memory, size);
}

// A string that grew out of its short-string buffer leaves the characters there.
// Its long buffer is lent to another string meanwhile, which makes the short one
// reachable.
void wipe(std::string& text) {
    wipeBuffer(text);
    if (text.capacity() == std::string().capacity()) return;  // that was the short one
    std::string longBuffer;
    longBuffer.swap(text);
    wipeBuffer(text);
    text.swap(longBuffer);
}

}  // namespace vorn
