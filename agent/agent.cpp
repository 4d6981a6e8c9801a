// SPDX-License-Identifier: Apache-2.0
#include "agent/agent.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "agent/ad/ad.h"
#include "agent/ad/net/check.h"
#include "agent/ad/net/ldap_network.h"
#include "agent/config.h"
#include "agent/directory/log.h"
#include "agent/embedded/embedded.h"
#include "agent/embedded/ldif.h"
#include "agent/process.h"
#include "agent/server/folder_lock.h"
#include "agent/server/handed_over.h"
#include "agent/server/notify.h"
#include "agent/server/server.h"
#include "vorn/dn.h"
#include "vorn/settings.h"

namespace vexagent {
namespace {

// What ending takes beside the requests at work.
constexpr std::chrono::seconds kEnding{5};

void complain(const std::string& text) {
    std::fprintf(stderr, "vexagent: %s\n", text.c_str());
    AGENT_LOG(vorn::Logger::kError, "%s", text.c_str());
}

bool exists(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0;
}

void buildIfMissing(const Config& config) {
    if (exists(config.database)) return;
    if (config.ldif.empty())
        throw DatabaseError(config.database + ": " + std::strerror(ENOENT) +
                            "; embedded.ldif names the LDIF file to build it from");
    // Another agent may be at it just now.
    const FolderLock lock(config.database);
    if (exists(config.database)) return;
    AGENT_LOG(vorn::Logger::kInfo, "building %s from %s", config.database.c_str(), config.ldif.c_str());
    std::vector<std::string> complaints;
    buildDatabase(config.database, config.ldif, vorn::DN::dnFromDomain(config.domain), complaints);
    for (const std::string& complaint : complaints)
        AGENT_LOG(vorn::Logger::kWarning, "%s", complaint.c_str());
}

// The file stays behind when the database is built, with all that is in it.
void warnOfOpenHashes(const std::string& ldif) {
    if (ldif.empty() || !showsHashes(ldif)) return;
    const std::string line = ldif + ": others can read the password hashes in it (embedded.ldif); " +
                             "install -o vexagent -m 400 makes a copy that is the agent's alone";
    std::fprintf(stderr, "vexagent: %s\n", line.c_str());
    AGENT_LOG(vorn::Logger::kWarning, "%s", line.c_str());
}

EmbeddedOptions embeddedOptions(const Config& config) {
    return {config.database,  config.domain,  config.loginAttributes,
            vorn::systemTime, config.leastId, config.passwordChange};
}

std::unique_ptr<Directory> openDomain(const Config& config) {
    auto network = std::make_unique<LdapNetwork>(config.ad);
    PasswordChanger* const changer = config.passwordChange ? network.get() : nullptr;
    return std::make_unique<AdDirectory>(config.ad, std::move(network), changer);
}

std::unique_ptr<Directory> openDirectory(const Config& config) {
    if (config.directory == DirectoryKind::Ad) return openDomain(config);
    buildIfMissing(config);
    return std::make_unique<EmbeddedDirectory>(embeddedOptions(config));
}

// The socket that the service manager has handed over, or one of the agent's own.
SocketFile openSocket(const SocketOptions& options) {
    if (std::optional<vorn::Descriptor> handedOver = takeHandedOver())
        return SocketFile(options, std::move(*handedOver));
    return SocketFile(options);
}

// The exit status of --check.
int check(const Config& config) {
    if (std::optional<vorn::Descriptor> handedOver = takeHandedOver())
        SocketFile(config.socket, std::move(*handedOver));
    if (config.directory == DirectoryKind::Ad) {
        std::string report;
        const bool good = checkDomain(config.ad, config.zone, report);
        std::fputs(report.c_str(), stdout);
        return good ? 0 : kStartFailed;
    }
    if (exists(config.database)) EmbeddedDirectory(embeddedOptions(config));
    return 0;
}

// The running agent, from the moment that its socket is there.
class Agent {
  public:
    explicit Agent(const Config& config)
        : m_directory(openDirectory(config)),
          m_service(*m_directory, vorn::systemTime),
          m_pool(config.threads),
          m_server(m_io, m_service, m_pool, config.server),
          m_stopTime(config.server.timeout),
          m_socket(openSocket(config.socket)),
          m_signals(m_io, SIGTERM, SIGINT),
          m_requests(m_io, SIGUSR1, SIGHUP),
          m_stopTimer(m_io) {}

    int run() {
        m_server.listen(m_socket.release());
        m_signals.async_wait([this](const boost::system::error_code& error, int) {
            if (!error) stop();
        });
        waitForRequests();
        notifyManager("READY=1");
        AGENT_LOG(vorn::Logger::kInfo, "ready");
        serve();
        // Work that does not end by itself in time is not waited for.
        if (m_pool.waitIdle(std::chrono::milliseconds(0))) return 0;
        m_socket.remove();
        std::fflush(nullptr);
        ::_exit(0);
    }

  private:
    // What there is no memory for is left undone, and the rest goes on.
    void serve() {
        for (bool ended = false; !ended;) {
            try {
                m_io.run();
                ended = true;
            } catch (const std::bad_alloc&) {
                AGENT_LOG(vorn::Logger::kError, "out of memory");
            }
        }
    }

    // Requests at work are waited for as long as their clients wait for them.
    void stop() try {
        const std::chrono::microseconds atMost = m_stopTime + kEnding;
        notifyManager("STOPPING=1\nEXTEND_TIMEOUT_USEC=" + std::to_string(atMost.count()));
        m_socket.remove();
        m_requests.cancel();
        m_stopTimer.expires_after(m_stopTime);
        m_stopTimer.async_wait([this](const boost::system::error_code& error) {
            if (!error) m_io.stop();
        });
        m_server.stop([this] { m_stopTimer.cancel(); });
    } catch (const std::bad_alloc&) {
        m_io.stop();
    }

    // SIGUSR1 asks for a statistics line, SIGHUP has the log levels read anew.
    void waitForRequests() {
        m_requests.async_wait([this](const boost::system::error_code& error, int signal) {
            if (error) return;
            waitForRequests();
            signal == SIGUSR1 ? tellStatistics() : reloadLevels();
        });
    }

    void tellStatistics() {
        const std::string line = m_service.statistics();
        std::fprintf(stderr, "vexagent: %s\n", line.c_str());
        AGENT_LOG(vorn::Logger::kInfo, "%s", line.c_str());
    }

    static void reloadLevels() {
        try {
            vorn::Logger::ReconfigureLevels(vorn::Props(true, false));
        } catch (const std::exception& error) {
            complain(error.what());
        }
    }

    boost::asio::io_context m_io{1};
    const std::unique_ptr<Directory> m_directory;
    Service m_service;
    WorkerPool m_pool;
    Server m_server;
    const std::chrono::milliseconds m_stopTime;
    SocketFile m_socket;
    boost::asio::signal_set m_signals;
    boost::asio::signal_set m_requests;
    boost::asio::steady_timer m_stopTimer;
};

}  // namespace

int start(const Options& options) {
    if (!options.config.empty()) ::setenv("ZANTHE_CONF", options.config.c_str(), 1);
    Config config;
    try {
        config = readConfig(vorn::Props(false, true), vorn::settingsFile());
    } catch (const std::exception& error) {
        complain(error.what());
        return kBadUsage;
    }
    try {
        ::signal(SIGPIPE, SIG_IGN);
        ::umask(077);  // the database holds password hashes
        raiseDescriptorLimit();
        if (options.check) return check(config);
        Agent agent(config);
        if (config.directory == DirectoryKind::Embedded) warnOfOpenHashes(config.ldif);
        return agent.run();
    } catch (const std::exception& error) {
        complain(error.what());
        return kStartFailed;
    }
}

}  // namespace vexagent
