// SPDX-License-Identifier: Apache-2.0
#include "bench/load/run.h"

#include <sys/epoll.h>
#include <sys/resource.h>
#include <time.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <list>
#include <optional>
#include <system_error>

#include "bench/load/connection.h"
#include "bench/load/histogram.h"

namespace load {

namespace {

using Seconds = std::chrono::duration<double>;

// A server that says nothing for so long is given up.
constexpr int kSilenceMilliseconds = 30'000;

// A stretch of a run: so many operations, or so many seconds, whichever is set.
struct Phase {
    Order* order;
    std::uint64_t operations = 0;
    double seconds = 0;
};

double processorSeconds(clockid_t clock) {
    timespec time{};
    if (::clock_gettime(clock, &time) != 0)
        throw std::system_error(errno, std::generic_category(), "clock_gettime");
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

clockid_t clockOf(pid_t process) {
    clockid_t clock{};
    if (const int error = ::clock_getcpuclockid(process, &clock); error != 0) {
        throw std::system_error(error, std::generic_category(), "watched process");
    }
    return clock;
}

class Run {
  public:
    explicit Run(const Plan& plan) : m_plan(plan), m_requests(plan), m_epoll(::epoll_create1(EPOLL_CLOEXEC)) {
        if (m_epoll.get() < 0) throw std::system_error(errno, std::generic_category(), "epoll_create1");
        m_clocks.push_back(CLOCK_PROCESS_CPUTIME_ID);
        for (const pid_t process : plan.watched) m_clocks.push_back(clockOf(process));
        for (unsigned i = 0; i < plan.connections; ++i) add();
    }

    // Every connection is idle before and afterwards; what is under way at the end
    // of the time is waited for, and not counted.
    Figures perform(const Phase& phase) {
        m_phase = phase;
        m_started = m_completed = 0;
        m_latencies = {};
        m_figures.reset();
        m_shared.entries = m_shared.bytes = 0;
        m_processorAtStart = processorTimes();
        m_start = Clock::now();
        for (Connection& connection : m_connections) connection.fill();
        do {
            waitAndServe();
            if (isOver() && !m_figures) m_figures = count();
        } while (!isIdle() || !m_figures);
        return *m_figures;
    }

    std::size_t requests() const { return m_requests.count(); }

  private:
    void add() {
        Connection& connection = m_connections.emplace_back(&m_shared);
        if (!m_plan.loginDn.empty()) connection.login(m_plan.loginDn, m_plan.loginPassword);
        watch(EPOLL_CTL_ADD, &connection);
    }

    void watch(int operation, Connection* connection) {
        epoll_event event{};
        event.events = connection->wantsToWrite() ? EPOLLIN | EPOLLOUT : EPOLLIN;
        event.data.ptr = connection;
        if (::epoll_ctl(m_epoll.get(), operation, connection->descriptor(), &event) != 0) {
            throw std::system_error(errno, std::generic_category(), "epoll_ctl");
        }
    }

    bool isOver() const {
        if (m_phase.operations > 0) return m_completed >= m_phase.operations;
        return Seconds(Clock::now() - m_start).count() >= m_phase.seconds;
    }

    bool next(std::size_t* index) {
        if (m_phase.operations > 0 ? m_started >= m_phase.operations : m_figures || isOver()) return false;
        ++m_started;
        *index = m_phase.order->next();
        return true;
    }

    void done(Clock::duration latency) {
        ++m_completed;
        m_latencies.add(static_cast<std::uint64_t>(std::chrono::nanoseconds(latency).count()));
    }

    bool isIdle() const {
        for (const Connection& connection : m_connections) {
            if (!connection.isIdle()) return false;
        }
        return true;
    }

    void waitAndServe() {
        std::array<epoll_event, 64> events{};
        const int count = ::epoll_wait(m_epoll.get(), events.data(), events.size(), kSilenceMilliseconds);
        if (count < 0 && errno != EINTR)
            throw std::system_error(errno, std::generic_category(), "epoll_wait");
        if (count == 0) throw WrongAnswer("no answer");
        for (int i = 0; i < count; ++i) serve(events[static_cast<std::size_t>(i)]);
    }

    void serve(const epoll_event& event) {
        auto* const connection = static_cast<Connection*>(event.data.ptr);
        const bool wanted = connection->wantsToWrite();
        if ((event.events & EPOLLOUT) != 0) connection->onWritable();
        if ((event.events & ~static_cast<unsigned>(EPOLLOUT)) != 0) connection->onReadable();
        if (connection->wantsToWrite() != wanted) watch(EPOLL_CTL_MOD, connection);
    }

    std::vector<double> processorTimes() const {
        std::vector<double> times;
        for (const clockid_t clock : m_clocks) times.push_back(processorSeconds(clock));
        return times;
    }

    Figures count() const {
        Figures figures;
        figures.seconds = Seconds(Clock::now() - m_start).count();
        std::vector<double> busy = processorTimes();
        for (std::size_t i = 0; i < busy.size(); ++i)
            busy[i] = (busy[i] - m_processorAtStart[i]) / figures.seconds;
        figures.generatorBusy = busy[0];
        figures.watchedBusy.assign(busy.begin() + 1, busy.end());
        figures.operations = m_completed;
        figures.entries = m_shared.entries;
        figures.bytes = m_shared.bytes;
        figures.p50 = static_cast<double>(m_latencies.quantile(0.5)) / 1000;
        figures.p99 = static_cast<double>(m_latencies.quantile(0.99)) / 1000;
        return figures;
    }

    const Plan& m_plan;
    Requests m_requests;
    vorn::Descriptor m_epoll;
    Shared m_shared{m_plan, m_requests, [this](std::size_t* index) { return next(index); },
                    [this](Clock::duration latency) { done(latency); }};
    std::list<Connection> m_connections;
    std::vector<clockid_t> m_clocks;  // this process, then the watched ones

    Phase m_phase{};
    std::uint64_t m_started = 0;
    std::uint64_t m_completed = 0;
    Histogram m_latencies;
    std::optional<Figures> m_figures;
    std::vector<double> m_processorAtStart;
    Clock::time_point m_start;
};

}  // namespace

void run(const Plan& plan, const std::function<bool()>& again,
         const std::function<void(const Figures&)>& report) {
    Run run(plan);
    Order once(run.requests(), plan.seed, false);
    Order drawn(run.requests(), plan.seed, true);
    if (plan.prime) run.perform({&once, run.requests()});
    while (again()) {
        if (plan.count > 0) {
            report(run.perform({&once, plan.count}));
            continue;
        }
        if (plan.warmup > 0) run.perform({&drawn, 0, plan.warmup});
        report(run.perform({&drawn, 0, plan.seconds}));
    }
}

std::string toJson(const Figures& figures) {
    std::string watched;
    for (const double busy : figures.watchedBusy) {
        watched += (watched.empty() ? "" : ", ") + std::to_string(busy);
    }
    char text[512];
    std::snprintf(text, sizeof text,
                  "{\"seconds\": %.6f, \"operations\": %llu, \"entries\": %llu, \"bytes\": %llu, "
                  "\"operations_per_second\": %.3f, \"entries_per_second\": %.3f, \"p50_us\": %.3f, "
                  "\"p99_us\": %.3f, \"generator_busy\": %.4f, \"watched_busy\": [",
                  figures.seconds, static_cast<unsigned long long>(figures.operations),
                  static_cast<unsigned long long>(figures.entries),
                  static_cast<unsigned long long>(figures.bytes),
                  static_cast<double>(figures.operations) / figures.seconds,
                  static_cast<double>(figures.entries) / figures.seconds, figures.p50, figures.p99,
                  figures.generatorBusy);
    return text + watched + "]}";
}

}  // namespace load
