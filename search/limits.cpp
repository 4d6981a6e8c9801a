// SPDX-License-Identifier: Apache-2.0
#include "search/limits.h"

#include "backend/base/slapd.h"

namespace {

std::optional<std::time_t> deadlineOf(const Operation& op) {
    if (op.ors_tlimit == SLAP_NO_LIMIT) return std::nullopt;
    return op.o_time + op.ors_tlimit;
}

}  // namespace

Limits::Limits(const Operation& op, vorn::Clock clock)
    : m_clock(clock), m_size(op.ors_slimit), m_deadline(deadlineOf(op)) {}

bool Limits::admitAfter(int sent) const {
    return m_size == SLAP_NO_LIMIT || sent < m_size;
}

std::optional<int> Limits::reachedAfter(int sent) const {
    if (!admitAfter(sent)) return LDAP_SIZELIMIT_EXCEEDED;
    if (m_deadline && m_clock() > *m_deadline) return LDAP_TIMELIMIT_EXCEEDED;
    return std::nullopt;
}
