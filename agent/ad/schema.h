// SPDX-License-Identifier: Apache-2.0
// The forest's schema, read from a controller and kept.
#pragma once

#include <memory>
#include <mutex>

#include "agent/ad/network.h"
#include "agent/directory/schema.h"

namespace vexagent {

// Safe for several threads.
class AdSchema {
  public:
    // The network outlives it.
    AdSchema(Network& network, Place domain) : m_network(network), m_domain(std::move(domain)) {}

    // The schema as it was an hour ago at most, or as it was read last where it cannot
    // be read any more. A controller that answers but tells none leaves one that knows
    // nothing for a minute: secrets are known by their names then. Never null.
    using Known = std::shared_ptr<const Schema>;
    Expected<Known, LdapFailure> get(const Deadline& deadline);

  private:
    // What there is; due: whether this caller reads it anew.
    struct Current {
        Known schema;  // null before the first
        bool due = true;
    };
    Current current();
    Expected<Schema, LdapFailure> read(const Deadline& deadline);
    Known keep(Schema schema, milliseconds time);
    void complain(const std::string& why) const;

    Network& m_network;
    const Place m_domain;
    std::mutex m_mutex;
    Known m_schema;  // guarded by m_mutex, as the next
    Moment m_until{};
};

}  // namespace vexagent
