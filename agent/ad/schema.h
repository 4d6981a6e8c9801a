// The forest's schema, read from a controller and kept.
#pragma once

#include <memory>
#include <mutex>

#include "agent/ad/net/domain.h"
#include "agent/directory/schema.h"

namespace vexagent {

// Safe for several threads.
class AdSchema {
  public:
    // The domain outlives it.
    explicit AdSchema(Domain& domain) : m_domain(domain) {}

    // The schema as it was an hour ago at most, or as it was read last where it cannot
    // be read any more. A controller that answers but tells none leaves one that knows
    // nothing for a minute: secrets are known by their names then.
    LdapStatus get(const Deadline& deadline, std::shared_ptr<const Schema>& schema);

  private:
    std::shared_ptr<const Schema> current(bool& due);
    LdapStatus read(const Deadline& deadline, Schema& schema);

    Domain& m_domain;
    std::mutex m_mutex;
    std::shared_ptr<const Schema> m_schema;  // guarded by m_mutex, as the next
    Moment m_until{};
};

}  // namespace vexagent
