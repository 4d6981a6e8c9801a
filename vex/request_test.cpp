// SPDX-License-Identifier: Apache-2.0
// That a password is nowhere in memory that a request gave back.
//
// Arrays are allocated through the functions below, which look at each array's
// bytes as it is released.
#include "vex/request.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>

namespace {

constexpr std::string_view kSecret = "correct horse battery staple";
constexpr std::size_t kHead = 16;
std::atomic<int> found{0};

}  // namespace

void* operator new[](std::size_t size) {
    auto* memory = static_cast<char*>(std::malloc(kHead + size));
    if (!memory) throw std::bad_alloc();
    std::memset(memory, 0, kHead + size);
    std::memcpy(memory, &size, sizeof size);
    return memory + kHead;
}

void operator delete[](void* place) noexcept {
    if (!place) return;
    char* memory = static_cast<char*>(place) - kHead;
    std::size_t size;
    std::memcpy(&size, memory, sizeof size);
    const std::string_view bytes(memory + kHead, size);
    if (bytes.find(kSecret) != bytes.npos) ++found;
    std::free(memory);
}

void operator delete[](void* place, std::size_t) noexcept {
    operator delete[](place);
}

namespace {

// How many released arrays hold the password after such a request.
int leftBehind(vex::Secrecy secrecy, std::size_t userBytes) {
    found = 0;
    {
        vex::Request request(secrecy);
        const std::string password(kSecret);
        const auto passwordText = request.text(password.c_str());
        // A long name makes the builder outgrow its buffer after the password is in it.
        const auto userText = request.text(std::string(userBytes, 'u').c_str());
        request.finish(vex::Options(),
                       vex::wire::CreateAuthenticate(request.builder(), userText, passwordText));
        const auto bytes = request.bytes();
        const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
        EXPECT_NE(text.find(kSecret), text.npos);
    }
    return found;
}

TEST(Request, ASecretOneLeavesNoPasswordBehind) {
    EXPECT_EQ(leftBehind(vex::Secrecy::Secret, 10), 0);
    EXPECT_EQ(leftBehind(vex::Secrecy::Secret, 100'000), 0);
}

TEST(Request, APlainOneWouldLeaveIt) {
    EXPECT_EQ(leftBehind(vex::Secrecy::Plain, 10), 1);
    EXPECT_EQ(leftBehind(vex::Secrecy::Plain, 100'000), 2);
}

TEST(Request, EachHasAnIdOfItsOwn) {
    const vex::Request first, second;
    EXPECT_NE(first.id(), 0u);
    EXPECT_NE(first.id(), second.id());
}

}  // namespace
