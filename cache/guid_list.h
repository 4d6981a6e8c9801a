// SPDX-License-Identifier: Apache-2.0
// The objects that a search found, by their GUIDs.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

// Not modified any more once it is shared, but for its verdicts.
class GuidList : public std::vector<std::string> {
  public:
    using std::vector<std::string>::vector;

    // What somebody found out about the object at a place, in numbers of their own; 0: nothing
    // yet. Who replays the list again need not find it out again. Any thread.
    using Verdict = std::atomic<std::uint64_t>;

    // Makes room for a verdict on each object of a whole list that is not shared yet.
    void makeVerdicts() { m_verdicts = std::make_unique<Verdict[]>(size()); }
    bool hasVerdicts() const { return m_verdicts != nullptr; }
    // Null where there is no room for one.
    Verdict* verdictAt(std::size_t place) const {
        return m_verdicts == nullptr ? nullptr : &m_verdicts[place];
    }

  private:
    std::unique_ptr<Verdict[]> m_verdicts;
};
