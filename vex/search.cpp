// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <climits>

#include "vex/closings.h"
#include "vex/session.h"

namespace vex {

Search::Search(std::shared_ptr<vexSession> owner)
    : vexSearchHandle{owner.get(), 0, 1}, m_owner(std::move(owner)), m_generation(generation()) {}

vexCode Search::open(const Request& request) {
    return ask(request, m_owner->endpoint.deadline());
}

vexCode Search::next(vexObject** object) {
    if (m_next == m_batch.size()) {
        const vexCode code = fetchBatch(m_owner->endpoint.deadline());
        if (code != VEX_OK) return code;
    }
    *object = new vexObject{m_batch[m_next]};
    m_batch[m_next++] = {};
    return VEX_OK;
}

// Brings the next batch that is not empty. Empty ones are allowed while the
// agent still looks, but only for as long as one call may take.
vexCode Search::fetchBatch(const vorn::Deadline& deadline) {
    if (m_end != VEX_OK) return m_end;
    while (m_next == m_batch.size()) {
        if (m_id == 0) return m_owner->succeeded(VEX_END_OF_RESULTS);
        if (!isHeldByAgent() || deadline.passed()) return m_end = m_owner->notAnswered();
        Request request;
        const auto body = wire::CreateSearchNext(request.builder(), m_id);
        request.finish(m_owner->options(), body);
        // A batch that was asked for and not received is missing from then on.
        m_end = VEX_BROKEN_SESSION;
        const vexCode code = ask(request, deadline);
        m_end = code;
        if (code != VEX_OK) return code;
    }
    return VEX_OK;
}

vexCode Search::ask(const Request& request, const vorn::Deadline& deadline) {
    Exchange exchange(m_owner->endpoint, deadline);
    exchange.expectAgent(m_agent);
    const wire::Response* response = exchange.ask(request);
    if (!response) return m_owner->notAnswered();
    if (response->code() == VEX_OK) return takeBatch(exchange, *response);
    m_id = 0;
    isLastPage = 1;
    return m_owner->answered(*response);
}

vexCode Search::takeBatch(Exchange& exchange, const wire::Response& response) {
    m_batch.clear();
    m_next = 0;
    m_agent = exchange.agent();
    m_id = response.search();
    if (const auto* objects = response.objects()) {
        m_batch.reserve(objects->size());
        for (const wire::PackedObject* packed : *objects)
            m_batch.push_back(ObjectRef::copyOf({packed->bytes()->data(), packed->bytes()->size()}));
    }
    m_received += static_cast<std::int64_t>(m_batch.size());
    total = static_cast<int>(std::clamp<std::int64_t>(m_received, response.total(), INT_MAX));
    isLastPage = m_id == 0 ? 1 : 0;
    return m_owner->answered(response);
}

void Search::close() {
    if (!isHeldByAgent()) return;
    // Nobody is left to tell when no connection is kept or under way: with the
    // process's last connection the agent has forgotten its searches.
    if (openSockets() == 0) return;
    Request request;
    const auto body = wire::CreateSearchClose(request.builder(), m_id);
    request.finish(Options(), body);
    const vorn::Deadline deadline = m_owner->endpoint.deadline();
    Exchange exchange(m_owner->endpoint, deadline);
    exchange.expectAgent(m_agent);
    if (!exchange.tell(request)) Closings::process().add(m_agent, m_id);
}

}  // namespace vex
