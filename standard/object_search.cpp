// SPDX-License-Identifier: Apache-2.0
#include "standard/object_search.h"

#include <limits>
#include <utility>

#include "backend/base/log.h"

namespace standard {
namespace {

constexpr std::size_t kAll = std::numeric_limits<std::size_t>::max() / 2;

// As it stands: where case does not count slapd has folded it already. What begins it is no
// filter: these keys are apart from others.
std::string keyWithoutBase(const AgentQuestion& question) {
    return "=" + question.filter + std::to_string(question.scope);
}

std::string keyOf(const AgentQuestion& question) {
    return keyWithoutBase(question) + question.base;
}

}  // namespace

vexCode ObjectSearch::open(const AgentQuestion& question) {
    SearchSource::announceView();
    if (const vexCode code = m_source.open(); code != VEX_OK) return code;
    SearchRequest request;
    request.filter = question.filter;
    request.base = question.base;
    request.scope = question.scope;
    request.key = keyOf(question);
    request.cacheable =
        m_source.cache()->isEnabled() && request.key.size() <= SearchCacheManager::kMaxKeyBytes;
    JPrintf("vex search asks for %s below %s", filterForLog(request.filter).c_str(), request.base.c_str());
    m_source.begin(request);
    if (!m_source.replay(request)) {
        const vexCode code = m_source.ask(request, -1, 0);
        if (code == VEX_NO_SUCH_OBJECT) {
            m_source.close();
            return VEX_OK;
        }
        if (code != VEX_OK) return code;
    }
    m_objects = &m_source.objects(kAll);
    return VEX_OK;
}

bool ObjectSearch::resume(const AgentQuestion& question, SharedHandle handle) {
    if (!handle->key.starts_with(keyWithoutBase(question))) return false;
    m_source.resume(std::move(handle));
    m_objects = &m_source.objects(kAll);
    return true;
}

vexCode ObjectSearch::next(FoundObject* found) {
    if (m_objects == nullptr) return VEX_END_OF_RESULTS;
    for (;;) {
        const vexCode code = m_objects->next(found);
        const bool gone = code != VEX_OK && code != VEX_END_OF_RESULTS && !m_objects->isFailure(code);
        if (!gone) return code;
    }
}

}  // namespace standard
