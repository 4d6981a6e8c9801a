// SPDX-License-Identifier: Apache-2.0
// What a client may have of one search: so many entries, for so long.
#pragma once

#include <ctime>
#include <optional>

#include "vorn/clock.h"

#include "backend/base/slapd_fwd.h"

class Limits {
  public:
    // Those that slapd hands over with the operation. On later pages it hands over what
    // earlier pages left of the size limit, so only this page's entries count against it.
    explicit Limits(const Operation& op, vorn::Clock clock = vorn::systemTime);

    // The most entries; -1 for any number.
    int size() const { return m_size; }

    // Whether another entry may be sent after so many.
    bool admitAfter(int sent) const;

    // The result code of the limit that ends the search after so many entries, if one does.
    std::optional<int> reachedAfter(int sent) const;

  private:
    const vorn::Clock m_clock;
    const int m_size;
    const std::optional<std::time_t> m_deadline;  // its second is not past it
};
