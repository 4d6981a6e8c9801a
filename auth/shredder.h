// A secret's holder.
#pragma once

#include <string>
#include <string_view>

#include "vorn/secret.h"

// Holds one string and overwrites it before its storage is released; moving from
// one leaves nothing behind either.
class Shredder {
  public:
    Shredder() = default;
    explicit Shredder(std::string_view secret) : m_text(secret) {}
    Shredder(Shredder&& other) { take(other); }
    Shredder& operator=(Shredder&& other) {
        if (this != &other) take(other);
        return *this;
    }
    Shredder(const Shredder&) = delete;
    Shredder& operator=(const Shredder&) = delete;
    ~Shredder() { vorn::wipe(m_text); }

    const std::string& text() const { return m_text; }

  private:
    void take(Shredder& other) {
        vorn::wipe(m_text);
        m_text = other.m_text;  // a copy: a move of a short string would leave its bytes in the source
        vorn::wipe(other.m_text);
    }

    std::string m_text;
};
