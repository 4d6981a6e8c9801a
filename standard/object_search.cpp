// SPDX-License-Identifier: Apache-2.0
#include "standard/object_search.h"

#include <limits>
#include <utility>

#include "backend/base/log.h"

namespace standard {
namespace {

constexpr std::size_t kAll = std::numeric_limits<std::size_t>::max() / 2;

// What begins it is no filter: these keys are apart from others.
std::string keyOf(const AgentQuestion& question) {
    return ":" + question.filter + std::to_string(question.scope) + question.base;
}

int& usedView() {
    static int theOne = VEX_VIEW_APPLICATIONS;
    return theOne;
}

}  // namespace

void useView(int view) {
    usedView() = view;
}

vexCode ObjectSearch::begin(const std::string& key, bool* cached) {
    SearchSource::announceView();
    if (const vexCode code = m_source.open(); code != VEX_OK) return code;
    vexSetOption(m_source.session(), VEX_OPTION_ZONE_VIEW, &usedView(), sizeof usedView());
    m_request.key = key;
    m_request.cacheable = m_source.cache()->isEnabled() && key.size() <= SearchCacheManager::kMaxKeyBytes;
    m_source.begin(m_request);
    *cached = m_source.replay(m_request);
    if (*cached) m_objects = &m_source.objects(kAll);
    return VEX_OK;
}

vexCode ObjectSearch::ask(const AgentQuestion& question) {
    m_request.filter = question.filter;
    m_request.base = question.base;
    m_request.scope = question.scope;
    JPrintf("vex search asks for %s below %s", filterForLog(question.filter).c_str(), question.base.c_str());
    const vexCode code = m_source.ask(m_request, -1, 0);
    if (code == VEX_NO_SUCH_OBJECT) {
        m_source.close();
        return VEX_OK;
    }
    if (code == VEX_OK) m_objects = &m_source.objects(kAll);
    return code;
}

vexCode ObjectSearch::open(const AgentQuestion& question) {
    bool cached = false;
    const vexCode code = begin(keyOf(question), &cached);
    return code != VEX_OK || cached ? code : ask(question);
}

bool ObjectSearch::resume(const std::string& key, SharedHandle handle) {
    if (handle->key != key) return false;
    m_source.resume(std::move(handle));
    m_objects = &m_source.objects(kAll);
    return true;
}

// (A list that is replayed has its room already.)
void ObjectSearch::makeVerdicts() {
    const SharedHandle& open = m_source.handle();
    if (open != nullptr && open->search != nullptr && open->cache.guidList != nullptr)
        open->cache.guidList->makeVerdicts();
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
