// SPDX-License-Identifier: Apache-2.0
#include "agent/directory/filter_shape.h"

#include <algorithm>

namespace vexagent {
namespace {

// Goes through a filter from parenthesis to parenthesis, as LDB does: a value ends at
// the first ")".
class Scan {
  public:
    explicit Scan(std::string_view text) : m_text(text) {}

    bool isOneFilter() {
        while (step())
            if (m_depth == 0) return m_at == m_text.size();
        return false;
    }

    std::size_t most() const { return std::max(m_assertions, m_lists); }

  private:
    // Over one parenthesis, and the assertion behind it; false where there is none.
    bool step() {
        skipBlanks();
        if (m_at == m_text.size()) return false;
        const char c = m_text[m_at++];
        if (c == ')') return m_depth-- > 0 && (skipBlanks(), true);
        if (c != '(') return false;
        skipBlanks();
        return isList() ? openList() : skipAssertion();
    }

    bool isList() const {
        return m_at < m_text.size() && std::string_view("&|!").find(m_text[m_at]) != std::string_view::npos;
    }

    bool openList() {
        ++m_at;
        ++m_lists;
        ++m_depth;
        return true;
    }

    bool skipAssertion() {
        ++m_assertions;
        const std::size_t end = m_text.find(')', m_at);
        if (end == std::string_view::npos) return false;
        m_at = end + 1;
        skipBlanks();
        return true;
    }

    void skipBlanks() { m_at = std::min(m_text.find_first_not_of(" \t\r\n", m_at), m_text.size()); }

    const std::string_view m_text;
    std::size_t m_at = 0;
    std::size_t m_depth = 0;
    std::size_t m_assertions = 0;
    std::size_t m_lists = 0;
};

}  // namespace

FilterShape shapeOf(std::string_view filter) {
    const auto pieces = static_cast<std::size_t>(std::count(filter.begin(), filter.end(), '*'));
    // An assertion may stand without parentheses.
    const std::size_t first = filter.find_first_not_of(" \t\r\n");
    if (first != std::string_view::npos && filter[first] != '(')
        return {std::max<std::size_t>(1, pieces), filter.find(')') == std::string_view::npos};
    Scan scan(filter);
    const bool whole = scan.isOneFilter();
    return {std::max(scan.most(), pieces), whole};
}

}  // namespace vexagent
