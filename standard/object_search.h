// SPDX-License-Identifier: Apache-2.0
// One search at the agent, or in the cache, for whole objects.
#pragma once

#include <cstddef>
#include <string>

#include "search/objects.h"
#include "search/source.h"

#include "backend/base/slapd_fwd.h"

namespace standard {

// What is asked: the agent's filter, base (a real DN) and scope.
struct AgentQuestion {
    std::string filter;
    std::string base;
    int scope = 0;
};

// The view that all searches of this process ask for (VEX_VIEW_...): set once, before the first.
void useView(int view);

// For use by one thread. A base that does not exist has no objects.
class ObjectSearch {
  public:
    ObjectSearch() = default;

    // Begins a search under a key of the cache. *cached: the cache has its objects, and the
    // agent need not be asked. VEX_OK, or why it could not begin.
    vexCode begin(const std::string& key, bool* cached);
    // Asks the agent, after begin. What it finds is cached under the key.
    vexCode ask(const AgentQuestion& question);
    // Both; the question itself is the key.
    vexCode open(const AgentQuestion& question);
    // Whether the base of the search exists, once it was asked for.
    bool hasBase() const { return m_objects != nullptr; }
    // Goes on with one that an earlier request has begun; false if that had another key.
    bool resume(const std::string& key, SharedHandle handle);

    // The next object: VEX_OK, VEX_END_OF_RESULTS after the last one, or why there are no
    // more to be had. An object that has gone meanwhile is passed over.
    vexCode next(FoundObject* found);

    vexSession* session() const { return m_source.session(); }
    const SharedHandle& handle() const { return m_source.handle(); }
    SearchCacheManager* cache() const { return m_source.cache(); }

    // Makes room for verdicts on the objects, before they are over.
    void makeVerdicts();
    // The objects are over: the cache is told what was found.
    void finish() { m_source.tellCache(); }

  private:
    SearchSource m_source;
    SearchRequest m_request;
    ObjectSource* m_objects = nullptr;  // null: there are none
};

}  // namespace standard
