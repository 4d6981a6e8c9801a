// SPDX-License-Identifier: Apache-2.0
// The groups of people whom one request names.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "agent/directory/directory.h"

namespace vexagent {

// Resolves each name once, however often a filter has it, and no more names and
// groups than one request may cost. For one request.
class MemberGroups {
  public:
    // The GUID bytes of the groups that show this memberUid.
    using Resolve = std::function<Result(const std::string& name, std::vector<std::string>& guids)>;

    static constexpr std::size_t kMostGuids = 65'536;  // in a whole filter

    MemberGroups(Resolve resolve, std::size_t mostNames)
        : m_resolve(std::move(resolve)), m_mostNames(mostNames) {}

    // Nothing once a name could not be resolved.
    std::vector<std::string> of(std::string_view name);

    // Why a name could not be resolved, if one could not.
    const Result& result() const { return m_result; }

  private:
    const Resolve m_resolve;
    const std::size_t m_mostNames;
    std::map<std::string, std::vector<std::string>, std::less<>> m_known;
    std::size_t m_guids = 0;
    Result m_result;
};

}  // namespace vexagent
