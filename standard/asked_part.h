// SPDX-License-Identifier: Apache-2.0
// The part of an entry that a client asks for.
#pragma once

#include <cstddef>
#include <vector>

#include "backend/base/slapd_fwd.h"

#include "backend/base/slapd.h"

namespace standard {

// slapd compares each attribute of each entry that it sends with each name that the client
// gave. An entry has three times as many attributes as most programs ask for, and thousands of
// entries have the same: here an attribute is compared once for a search. For use by one
// thread.
class AskedPart {
  public:
    // Of the operation's search, which outlives it.
    explicit AskedPart(const Operation* op) : m_op(op) {}

    // An entry of which slapd sends what it would send of the given one: the same values, in
    // the same memory. Until the next call. Where somebody else may want more of it, or all is
    // asked for, the given one; and the first one of a search, which may well be the last.
    Entry* of(Entry* entry);

  private:
    enum class State { First, Second, Parts, Whole };
    struct Known {
        const AttributeDescription* description;
        bool asked;
    };

    bool isWhole();
    bool isAsked(AttributeDescription* description) {
        const bool expected = m_next < m_known.size() && m_known[m_next].description == description;
        return expected ? m_known[m_next++].asked : lookUp(description);
    }
    bool lookUp(AttributeDescription* description);

    const Operation* const m_op;
    State m_state = State::First;
    std::vector<Known> m_known;  // in the order in which entries have them
    std::size_t m_next = 0;      // where the next attribute is expected
    std::vector<Attribute> m_attributes;
    Entry m_part{};
};

}  // namespace standard
