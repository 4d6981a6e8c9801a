// SPDX-License-Identifier: Apache-2.0
// The directory behind the agent.
//
// The server and the service know a directory by this interface only, so that
// one that sits on a file and one that asks domain controllers fit alike.
//
// Objects are neutral records of attribute names and byte values, in the order
// in which a client sees them. Every object carries _dn, _GUID and
// _objectCategory whatever was asked for, and _nssEntryInvalid when it cannot be
// used as a UNIX entry. No secret is ever among the attributes.
//
// Threads. Every call may be made from any number of threads at once; one cursor
// is used by one thread at a time. Nothing throws save std::bad_alloc.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "agent/directory/result.h"
#include "agent/directory/verdict.h"
#include "vex/vex.h"

namespace vexagent {

struct Attribute {
    std::string name;
    std::vector<std::string> values;
};

using Object = std::vector<Attribute>;

// Who counts as a member of a group, and by which name.
enum class Naming {
    Hosts,        // people with a uidNumber: by uid, or else sAMAccountName
    Applications  // all people: by sAMAccountName
};

// How objects are to be shown.
struct View {
    bool zone = false;                    // with computed attributes, such as a group's memberUid
    std::vector<std::string> attributes;  // the names wanted; empty means all, "1.1" none
    Naming naming = Naming::Hosts;        // of members, in what is computed
};

struct Query {
    std::string domain;          // "" the joined domain, "$" the forest, or a domain's name
    std::string filter;          // RFC 4515; "" means every object
    std::string base;            // a DN, "" the domain's root, or "<GUID=...>"
    int scope = 2;               // 0 base, 1 one level, 2 subtree, 3 subordinate
    bool typed = false;          // select objects of UNIX kinds only
    std::size_t firstBatch = 0;  // a hint: so many objects are wanted at first; 0 for none
    View view;
};

struct Batch {
    std::vector<Object> objects;
    std::uint64_t total = 0;  // objects found so far
};

// The rest of a search.
class Cursor {
  public:
    virtual ~Cursor() = default;
    // The next batch, which may be empty. On failure the search is over.
    virtual Result next(Batch& batch) = 0;
    // Whether nothing follows what next has given.
    virtual bool atEnd() const = 0;
};

// Whether a password may be checked against what the agent remembers of earlier
// checks. A directory that is always at hand ignores both.
struct LoginOptions {
    bool preferCached = false;  // rather than waiting for a directory that was out of reach just now
    bool allowCached = false;   // when the directory turns out to be out of reach
};

class Directory {
  public:
    virtual ~Directory() = default;

    // Whether a search of that scope is answered in microseconds, from indexes;
    // cheap, and allowed to be wrong.
    virtual bool isQuick(int scope, const std::string& filter) const = 0;

    // Runs a search up to its first batch. rest becomes null when that was all.
    virtual Result search(const Query& query, Batch& first, std::unique_ptr<Cursor>& rest) = 0;

    // One object by its DN: VEX_NO_SUCH_OBJECT when there is none.
    virtual Result fetch(const std::string& domain, const std::string& dn, const View& view,
                         Object& object) = 0;

    // One object by the text of its GUID: VEX_OBJECT_GONE when there is none.
    virtual Result lookup(const std::string& guid, const View& view, Object& object) = 0;

    // Objects that will be looked up next. Those that cost little by now are handed over,
    // in the order of their GUIDs, until take says that it wants no more. The others are
    // left out, whatever the reason: each is looked up by itself.
    using Take = std::function<bool(Object&& object)>;
    virtual void lookupAhead(const std::vector<std::string>& guids, const View& view, const Take& take) = 0;

    // Whether this is the user's password: accepted, VEX_NO_SUCH_USER,
    // VEX_WRONG_PASSWORD, VEX_ACCOUNT_REFUSED, or why it could not be told.
    virtual Verdict authenticate(const std::string& user, const std::string& password,
                                 LoginOptions options) = 0;

    // Gives the user a new password if the old one is right: the codes of authenticate; what
    // badNewPassword says if the directory does not take the new one; VEX_NOT_SUPPORTED if
    // nobody's password can be changed here.
    virtual Result changePassword(const std::string& user, const std::string& oldPassword,
                                  const std::string& newPassword) = 0;

    // The names of the attributes that objects can carry.
    virtual Result supportedAttributes(std::vector<std::string>& names) = 0;

    // VEX_OK when the directory can answer, otherwise why it cannot.
    virtual Result health() = 0;
};

}  // namespace vexagent
