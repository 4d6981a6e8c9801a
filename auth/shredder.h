// A secret's holder.
#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "vorn/secret.h"

// Holds one string and overwrites it before its storage is released; moving from
// one leaves nothing behind either.
class Shredder {
  public:
    Shredder() = default;
    explicit Shredder(std::string_view secret) : m_text(secret) {}
    Shredder(Shredder&& other) noexcept { take(other); }
    Shredder& operator=(Shredder&& other) noexcept {
        if (this != &other) take(other);
        return *this;
    }
    Shredder(const Shredder&) = delete;
    Shredder& operator=(const Shredder&) = delete;
    ~Shredder() { vorn::wipe(m_text); }

    const std::string& text() const { return m_text; }

  private:
    void take(Shredder& other) noexcept {
        vorn::wipe(m_text);
        m_text = std::move(other.m_text);
        // A short string's bytes are still in the source after a move.
        vorn::wipe(other.m_text);
    }

    std::string m_text;
};
