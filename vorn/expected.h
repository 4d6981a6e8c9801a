// SPDX-License-Identifier: Apache-2.0
// What a function returns: what it found, or why not.
//
// C++23's std::expected in the form that Debian packages for C++20 (tl::expected), with
// two rules more: an answer cannot be dropped, and none comes into being by itself, so
// that a forgotten one is no success.
#pragma once

#include <tl/expected.hpp>
#include <utility>

namespace vorn {

template <class T, class E>
class [[nodiscard]] Expected : public tl::expected<T, E> {
  public:
    using Base = tl::expected<T, E>;
    using Base::Base;
    Expected() = delete;
    // What map and map_error give.
    Expected(Base&& answer) : Base(std::move(answer)) {}  // NOLINT(google-explicit-constructor)
};

// return unexpected(why);
template <class E>
tl::unexpected<std::decay_t<E>> unexpected(E&& why) {
    return tl::unexpected<std::decay_t<E>>(std::forward<E>(why));
}

// What a function found that only had something to do: it is done.
struct Done {};

}  // namespace vorn
