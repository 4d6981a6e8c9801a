// SPDX-License-Identifier: Apache-2.0
// Where a domain's controllers are: a list in the settings, or DNS.
#pragma once

#include <condition_variable>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "agent/ad/net/context.h"
#include "agent/ad/net/controllers.h"

namespace vexagent {

// Safe for several threads.
class Locator {
  public:
    // place is the domain, or the catalog. All of it outlives it.
    Locator(const NetContext& context, const Place& place, Controllers& controllers)
        : m_context(context), m_place(place), m_controllers(controllers) {}

    // Looks for the controllers, anew; takes some seconds where DNS does not answer. Those
    // known before are kept where nobody is found. Why nobody is.
    Expected<Done, std::string> locate();

    // Whether it is time for that.
    bool isDue() const;

    // Waits until some are known. A failure where there are none, or none yet.
    Linked<Done> waitForSome(const Deadline& deadline);
    LinkFailure nobodyKnown(const std::string& reason) const;

    // What the domain itself says of its forest, by the DNS name: hosts of that one are its
    // own from now on.
    void learnForest(const std::string& forest);

  private:
    using Found = std::vector<Controller>;

    std::uint16_t port() const;
    Found listed() const;
    Expected<Found, std::string> find();
    // The controllers among the records; why one of them does not count.
    std::string take(const std::vector<SrvRecord>& records, int rank, Found& found);
    bool isOwnHost(const std::string& host);
    void note(const Expected<Found, std::string>& found);

    const NetContext& m_context;
    const Place& m_place;
    Controllers& m_controllers;

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_located = false;  // whether it has been tried; guarded by m_mutex, as all below
    Moment m_again{};
    std::string m_reason;               // why nobody was found
    std::string m_forest;               // that the domain names
    std::set<std::string> m_strangers;  // hosts that DNS names, and that are not asked
};

}  // namespace vexagent
