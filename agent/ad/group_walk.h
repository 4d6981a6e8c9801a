// SPDX-License-Identifier: Apache-2.0
// The way up: from a person to the groups that show it.
#pragma once

#include <set>
#include <string>
#include <unordered_set>
#include <vector>

#include "agent/ad/membership.h"

namespace vexagent {

// One walk up from the people who are members by a name. Runs once.
class GroupWalk {
  public:
    explicit GroupWalk(const WalkContext& context) : m_context(context) {}

    // The GUID bytes of the groups that they are in, directly or through others, their
    // primary groups among them.
    Expected<std::vector<std::string>, LdapFailure> run(const std::string& memberUid);

  private:
    Expected<Done, LdapFailure> findPeople(const std::string& memberUid);
    Expected<bool, LdapFailure> findPeopleBy(const char* attribute, const std::string& memberUid);
    Expected<Done, LdapFailure> readLevel();
    void addPerson(const Entry& person);
    void addParents(const Entry& entry);

    const WalkContext m_context;
    std::string m_root;
    std::vector<std::string> m_dns;   // of groups to be read
    std::vector<std::string> m_sids;  // likewise
    std::unordered_set<std::string> m_seen;
    std::set<std::string> m_guids;
};

}  // namespace vexagent
