// SPDX-License-Identifier: Apache-2.0
// What the meaning of a domain rests on: somebody who can be asked.
//
// This folder knows what names, accounts, members and numbers of a domain mean. It knows
// neither controllers nor connections, sockets or tickets: what it wants to know it asks a
// Network, by the name of a place. A controller that fails, hangs or sends half an answer
// is the network's business, as long as another one answers in time: a failure that comes
// out of here is the last word.
//
//     Expected<std::vector<Entry>, LdapFailure> found =
//         readOne(network, {"example.com"}, {"DC=example,DC=com", LDAP_SCOPE_BASE}, deadline);
//     if (!found) return resultOf(found.error());
//
// Errors. A function returns what it found or why not. A failure that is "lost" says that
// nobody answered as a controller should; every other one is a controller's own answer.
// Nothing throws save std::bad_alloc.
//
// Time. Every call is over at its deadline, or a moment later. The deadline is made of
// the network's clock.
//
// Ownership. Arguments are read during the call only, save where it says so. A network
// outlives every OpenSearch that it has given.
//
// Threads. Every call may be made from any number of threads at once; one OpenSearch is
// used by one thread at a time. No lock of the caller's is needed, and none should be held.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent/ad/entry.h"
#include "agent/ad/failure.h"
#include "agent/directory/verdict.h"
#include "vorn/deadline.h"
#include "vorn/expected.h"

namespace vexagent {

using std::chrono::milliseconds;
using vorn::Deadline;
using vorn::Done;
using vorn::Expected;
using vorn::Moment;

// Where something is asked. A name in another case is the same place.
//
// Whoever names a place has it from the settings or from the joined domain: controllers
// of a place are looked for, and shown the agent's own credentials.
struct Place {
    enum class Kind { Domain, Catalog };
    std::string name;  // the domain's DNS name; of a catalog the forest's
    Kind kind = Kind::Domain;
    std::string forest{};  // the DNS name of the domain's forest, where that is known already
};

// What the root DSE and the partitions of a domain say. Does not change.
struct DomainInfo {
    std::string root;     // the domain's DN
    std::string forest;   // the DN of the forest's root domain
    std::string sid;      // bytes
    std::string netbios;  // the domain's short name
    int domains = 1;      // in the forest
};

// How much a search may find.
enum class Extent {
    Few,  // as much as any controller sends at once
    Any,
    Many  // a good part of the directory, which a controller collects before it answers
};

struct LdapSearch {
    std::string base;  // a DN or "<GUID=...>"
    int scope = LDAP_SCOPE_SUBTREE;
    std::string filter = "(objectClass=*)";
    std::vector<std::string> attributes{};  // empty: all
    Extent extent = Extent::Any;
};

// Takes what searches find. Called by the thread that searches, before the search returns.
class EntrySink {
  public:
    virtual ~EntrySink() = default;
    // Before the first entry; and again where the searches begin anew, with another
    // controller: what was taken before does not count.
    virtual void restart() = 0;
    // An entry in full: a large attribute that came in parts is put together.
    virtual void take(Entry&& entry) = 0;
};

// The end of searches that were all answered.
struct SearchEnd {
    std::optional<LdapFailure> missing{};  // what was said of a base that is not there; of the last one
};

// A search that is read as far as its results are wanted.
struct LongSearch {
    LdapSearch search;
    std::size_t first = 0;    // entries of the first batch
    std::size_t page = 1000;  // that a controller sends at a time, where it sends pages
    std::size_t bytes = 0;    // about so many, or as many entries as are wanted, end a batch
    // What it is false for is passed over. Lives as long as the search.
    std::function<bool(const Entry&)> wanted;
};

class OpenSearch {
  public:
    virtual ~OpenSearch() = default;
    // The next entries in full, in the controller's order; may be none. A failure is the
    // end of the search.
    virtual Expected<std::vector<Entry>, LdapFailure> next(std::size_t most, const Deadline& deadline) = 0;
    // Whether nothing follows what next has given.
    virtual bool atEnd() const = 0;
};

struct OpenedSearch {
    std::vector<Entry> first;
    std::unique_ptr<OpenSearch> rest;  // null when that was all
};

// How hard it is looked whether somebody answers.
enum class Look {
    AtWhatIsKnown,  // nobody is asked: do all controllers count as failed just now?
    IfLongAgo,      // somebody is asked if neither an answer nor the want of one is a moment old
    AtEverybody     // all controllers are asked at the same time
};

class Network {
  public:
    virtual ~Network() = default;

    // Runs the searches together, and anew from the first one where a controller is lost on
    // the way. Entries come in no particular order. A base that is not there finds nothing.
    virtual Expected<SearchEnd, LdapFailure> search(const Place& place,
                                                    const std::vector<LdapSearch>& searches, EntrySink& sink,
                                                    const Deadline& deadline) = 0;

    // The same up to the first batch of one search, and the rest of it, which stays with the
    // controller that has begun. How many may be open at a time is limited: LDAP_BUSY.
    virtual Expected<OpenedSearch, LdapFailure> open(const Place& place, LongSearch search,
                                                     const Deadline& deadline) = 0;

    // What a domain says of itself. Asked once, and known from then on. Never null.
    virtual Expected<std::shared_ptr<const DomainInfo>, LdapFailure> describe(const Place& place,
                                                                              const Deadline& deadline) = 0;

    // Whether this is the password of the DN, by a bind on a connection of its own. It is
    // sent to one controller, once.
    virtual Expected<Accepted, LdapFailure> bind(const Place& place, const std::string& dn,
                                                 const std::string& password, const Deadline& deadline) = 0;

    // The same of an account's name, by a KDC of the domain, whose answer must prove to be
    // the domain's. What a KDC has refused is sent to nobody else.
    virtual Expected<Accepted, KdcFailure> askKdc(const Place& place, const std::string& account,
                                                  const std::string& password, const Deadline& deadline) = 0;

    // Whether somebody answers.
    virtual Expected<Done, LdapFailure> probe(const Place& place, Look look, const Deadline& deadline) = 0;

    // Has this done from time to time, apart from requests and by a thread of the
    // network's own, in the place of what was to be done before; an empty function ends
    // it. What was done before is no more being done when this returns.
    virtual void tend(std::function<void()> work) = 0;

    // Lives as long as the process.
    virtual const vorn::SteadyClock& clock() const = 0;
};

// All entries that the searches find. A base that is not there finds nothing.
Expected<std::vector<Entry>, LdapFailure> readAll(Network& network, const Place& place,
                                                  const std::vector<LdapSearch>& searches,
                                                  const Deadline& deadline);

// The same of one search. That its base is not there is a failure.
Expected<std::vector<Entry>, LdapFailure> readOne(Network& network, const Place& place,
                                                  const LdapSearch& search, const Deadline& deadline);

}  // namespace vexagent
