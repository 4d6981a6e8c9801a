// The domains that the agent asks: the joined one, its forest's global catalog, and the
// other domains that the joined one names itself.
//
// What they are is learned from the joined domain, never from a request: a name that is
// none of theirs costs no packet, not even a question to DNS. With a service account
// they are those of the own forest; a domain that is trusted is asked with the machine's
// tickets only, since a password that is shown there would be theirs.
#pragma once

#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "agent/ad/known_domains.h"
#include "agent/ad/net/domain.h"

namespace vexagent {

// Safe for several threads. Domains live as long as this.
class Forest {
  public:
    // Asks nothing yet. The context outlives it.
    explicit Forest(const LinkContext& context);
    ~Forest();
    Forest(const Forest&) = delete;
    Forest& operator=(const Forest&) = delete;

    Domain& joined() { return m_joined; }

    // The domain of that DNS name, in any case; null when the joined domain names none
    // of that name. A status that is not good: it could not be asked which there are.
    LdapStatus find(const std::string& name, const Deadline& deadline, Domain*& domain);

    // The global catalog.
    LdapStatus catalog(const Deadline& deadline, Domain*& domain);

    // Of a realm whose domain has been asked for before; null for another one.
    Controllers* controllersOf(const std::string& realm);

  private:
    Domain* known(const std::string& key);
    Domain& add(const std::string& key, const std::function<std::unique_ptr<Domain>()>& make);
    LdapStatus names(const Deadline& deadline, std::shared_ptr<const KnownDomains>& names);
    LdapStatus learn(const Deadline& deadline, std::shared_ptr<const KnownDomains>& names);
    void refresh();
    void keepHouse();

    const LinkContext& m_context;

    // What adding a domain needs is there before the first one is added.
    std::mutex m_houseMutex;
    std::condition_variable m_wakeHouse;
    bool m_stopping = false;  // guarded by m_houseMutex, as the next
    bool m_work = false;

    std::mutex m_mutex;
    std::map<std::string, std::unique_ptr<Domain>> m_domains;  // by lower-case name; guarded by m_mutex
    std::shared_ptr<const KnownDomains> m_names;               // as this; null before they are learned
    Moment m_learnAgain{};                                     // and this
    Domain& m_joined;

    std::thread m_house;
};

}  // namespace vexagent
