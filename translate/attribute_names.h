// SPDX-License-Identifier: Apache-2.0
// The agent's names of the attributes that a request asks for.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

// One list that never changes, and that all of its copies share: a request asks for the
// attributes of the one before it more often than not, and each entry that is kept is kept
// with them. Lists that share are equal without a look at the names.
class AttributeNames {
  public:
    using value_type = std::string;
    using const_iterator = std::vector<std::string>::const_iterator;

    AttributeNames() = default;  // no names, and nothing to share
    AttributeNames(std::vector<std::string> names)
        : m_names(std::make_shared<const std::vector<std::string>>(std::move(names))) {}
    AttributeNames(std::initializer_list<std::string> names)
        : AttributeNames(std::vector<std::string>(names)) {}

    const std::vector<std::string>& list() const { return m_names != nullptr ? *m_names : none(); }
    const_iterator begin() const { return list().begin(); }
    const_iterator end() const { return list().end(); }
    std::size_t size() const { return list().size(); }
    bool empty() const { return list().empty(); }

    bool operator==(const AttributeNames& other) const {
        return m_names == other.m_names || list() == other.list();
    }

  private:
    static const std::vector<std::string>& none() {
        static const std::vector<std::string> empty;
        return empty;
    }

    std::shared_ptr<const std::vector<std::string>> m_names;
};
