// SPDX-License-Identifier: Apache-2.0
#include "bench/load/requests.h"

#include <numeric>
#include <utility>

namespace load {

namespace {

std::string withKey(std::string text, const std::string& key) {
    for (std::size_t at = 0; (at = text.find("%s", at)) != std::string::npos; at += key.size()) {
        text.replace(at, 2, key);
    }
    return text;
}

std::string makeMessage(const Plan& plan, const std::string& key) {
    if (plan.mode == Mode::Bind) return message(bindRequest(withKey(plan.bindDn, key), plan.bindPassword));
    SearchSpec search = plan.search;
    search.filter = withKey(search.filter, key);
    return message(searchRequest(search),
                   plan.mode == Mode::Paged ? pagedControl(plan.pageSize, "") : std::string());
}

}  // namespace

Requests::Requests(const Plan& plan) : m_keys(plan.keys) {
    if (m_keys.empty()) m_keys.emplace_back();
    for (const std::string& key : m_keys) m_messages.push_back(makeMessage(plan, key));
}

Order::Order(std::size_t count, std::uint64_t seed, bool drawn) : m_random(seed), m_count(count) {
    if (drawn) return;
    m_shuffled.resize(count);
    std::iota(m_shuffled.begin(), m_shuffled.end(), std::size_t{0});
    // Written out: what std::shuffle does with a seed is not the same everywhere.
    for (std::size_t i = count; i > 1; --i) std::swap(m_shuffled[i - 1], m_shuffled[m_random() % i]);
}

std::size_t Order::next() {
    if (m_shuffled.empty()) return m_random() % m_count;
    return m_shuffled[m_place++ % m_count];
}

}  // namespace load
