// SPDX-License-Identifier: Apache-2.0
// What a request through libvex costs, beside the same bytes over a bare Unix socket.
//
//     vex_roundtrip DATABASE KEYS FOLDER [PEER-PROCESSOR]
//
// ZANTHE_CONF names the settings of an agent that serves the embedded directory in the
// file DATABASE; KEYS names people by login name, one a line; sockets are made in
// FOLDER. Prints one line of JSON: medians in microseconds.
//
// Every way is taken in turns, so that what slows the machine down slows all of them.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "agent/embedded/embedded.h"
#include "bench/load/histogram.h"
#include "bench/roundtrip/peer.h"
#include "vex/connection.h"
#include "vex/request.h"
#include "vex/session.h"
#include "vex/wire.h"
#include "vorn/settings.h"

namespace {

using Clock = std::chrono::steady_clock;
using roundtrip::Frames;

constexpr int kTurns = 40;
constexpr std::chrono::milliseconds kTurn(20);
constexpr std::size_t kPeople = 2'000;  // so many are looked up, in any order

void require(bool holds, const char* what) {
    if (!holds) throw std::runtime_error(what);
}

std::string byName(const std::string& name) {
    return "(&(objectClass=user)(sAMAccountName=" + name + "))";
}
std::string byNumber(const std::string& number) {
    return "(&(objectClass=user)(uidNumber=" + number + "))";
}

// ---------------------------------------------------------------- libvex

struct Session {
    Session() {
        require(vexSessionOpen(VEX_SESSION_LOCAL, VEX_INTERFACE_LEVEL, &handle) == VEX_OK, "session");
    }
    ~Session() { vexSessionClose(handle); }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    vexSession* handle = nullptr;
};

// The one object that the filter finds; freed by the caller.
vexObject* search(vexSession* session, const std::string& filter) {
    vexSearchHandle* search = nullptr;
    require(vexLdapSearchOpen(session, "", filter.c_str(), "", nullptr, 2, -1, 0, &search) == VEX_OK,
            "search");
    vexObject* object = nullptr;
    require(vexLdapSearchNext(search, &object) == VEX_OK, "nothing found");
    vexObject* other = nullptr;
    require(vexLdapSearchNext(search, &other) == VEX_END_OF_RESULTS, "more than one found");
    vexLdapSearchClose(search);
    return object;
}

void find(vexSession* session, const std::string& filter) {
    vexFreeObject(search(session, filter));
}

void lookUp(vexSession* session, const std::string& guid) {
    vexObject* object = nullptr;
    require(vexLookupObjectByGuid(session, guid.c_str(), &object) == VEX_OK, "look-up");
    vexFreeObject(object);
}

void askForHealth(vexSession* session) {
    int condition = 0;
    int system = 0;
    int code = 0;
    char* text = nullptr;
    require(vexSystemHealthInfo(session, 0, &condition, &system, &code, &text) == VEX_OK, "health");
    vexFreeString(text);
}

std::string attribute(vexSession* session, const vexObject* object, const char* name) {
    char* value = nullptr;
    require(vexGetAttributeStr(session, object, name, &value) == VEX_OK, name);
    std::string text(value);
    vexFreeString(value);
    return text;
}

// ---------------------------------------------------------------- what is asked

struct Person {
    std::string byName, byNumber, guid;
};

std::vector<Person> readPeople(vexSession* session, const char* file) {
    std::ifstream names(file);
    std::vector<std::string> all;
    for (std::string name; std::getline(names, name);) all.push_back(name);
    require(!all.empty(), "no people");
    std::mt19937 random(1);
    std::vector<Person> people;
    for (std::size_t i = 0; i < kPeople; ++i) {
        const std::string& name = all[random() % all.size()];
        vexObject* const object = search(session, byName(name));
        people.push_back({byName(name), byNumber(attribute(session, object, "uidNumber")),
                          attribute(session, object, AD_OBJECT_GUID_TEXT)});
        vexFreeObject(object);
    }
    return people;
}

std::string framed(std::span<const std::uint8_t> bytes) {
    std::uint8_t length[vex::wire::kLengthBytes];
    flatbuffers::WriteScalar(length, static_cast<std::uint32_t>(bytes.size()));
    std::string frame(reinterpret_cast<const char*>(length), sizeof length);
    return frame.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

// What a search sends, and what the agent answers.
Frames capture(const std::string& filter) {
    vex::Request request;
    const auto domain = request.text("");
    const auto filterText = request.text(filter.c_str());
    const auto base = request.text("");
    const auto names = request.names(nullptr);
    request.finish(vex::Options(),
                   vex::wire::CreateSearchOpen(request.builder(), domain, filterText, base, names, 2, -1, 0));
    const vex::Endpoint endpoint = vex::configuredEndpoint();
    const vex::Deadline deadline(endpoint.timeout);
    const auto connection = vex::Connection::open(endpoint, deadline);
    require(connection != nullptr && connection->send(request.bytes(), deadline) == vex::Sent::Whole,
            "agent");
    const auto answer = connection->receive(deadline);
    require(!answer.empty(), "answer");
    return {framed(request.bytes()), framed(answer)};
}

// ---------------------------------------------------------------- the ways

// The directory without an agent, in this process.
class Alone {
  public:
    explicit Alone(const char* database) : m_directory({database, "example.com", {"sAMAccountName"}}) {}

    void find(const std::string& filter) {
        vexagent::Query query;
        query.filter = filter;
        vexagent::Batch batch;
        std::unique_ptr<vexagent::Cursor> rest;
        require(m_directory.search(query, batch, rest).ok() && batch.objects.size() == 1, "directory");
    }
    void lookUp(const std::string& guid) {
        vexagent::Object object;
        require(m_directory.lookup(guid, {}, object).ok(), "directory");
    }

  private:
    vexagent::EmbeddedDirectory m_directory;
};

// Has libvex ask at this socket from now on.
void useAgentAt(const std::string& socket, const std::string& folder) {
    const std::string file = folder + "/roundtrip.conf";
    std::ofstream(file) << "agent.socket = " << socket << "\n";
    ::setenv("ZANTHE_CONF", file.c_str(), 1);
    vorn::Props(true, true);
}

class Ways {
  public:
    using Way = std::function<void(const Person&)>;

    void add(const std::string& name, Way way) { m_ways.push_back({name, std::move(way), {}, {}}); }

    void takeTurns(const std::vector<Person>& people) {
        for (int turn = 0; turn < kTurns; ++turn) {
            for (Entry& entry : m_ways) run(&entry, people);
        }
    }

    // The median of the turns' medians, in microseconds.
    std::map<std::string, double> medians() const {
        std::map<std::string, double> medians;
        for (const Entry& entry : m_ways) {
            std::vector<double> turns = entry.turns;
            const auto middle = turns.begin() + static_cast<std::ptrdiff_t>(turns.size() / 2);
            std::nth_element(turns.begin(), middle, turns.end());
            medians[entry.name] = *middle;
        }
        return medians;
    }

  private:
    struct Entry {
        std::string name;
        Way way;
        std::vector<double> turns;
        std::mt19937 random;
    };

    static void run(Entry* entry, const std::vector<Person>& people) {
        load::Histogram latencies;
        const auto end = Clock::now() + kTurn;
        for (auto start = Clock::now(); start < end;) {
            entry->way(people[entry->random() % people.size()]);
            const auto now = Clock::now();
            latencies.add(static_cast<std::uint64_t>(std::chrono::nanoseconds(now - start).count()));
            start = now;
        }
        entry->turns.push_back(static_cast<double>(latencies.quantile(0.5)) / 1000);
    }

    std::vector<Entry> m_ways;
};

void print(const Frames& frames, const std::map<std::string, double>& medians) {
    std::printf("{\"request_bytes\": %zu, \"response_bytes\": %zu", frames.request.size(),
                frames.response.size());
    for (const auto& [name, microseconds] : medians)
        std::printf(", \"%s\": %.2f", name.c_str(), microseconds);
    std::puts("}");
}

void measure(const char* database, const char* keys, const std::string& folder, int processor) {
    const Session real;
    const std::vector<Person> people = readPeople(real.handle, keys);
    const Frames frames = capture(people[0].byName);
    const roundtrip::Peer bytes(folder + "/bytes.sock", frames, roundtrip::Answers::Bytes, processor);
    const roundtrip::Peer protocol(folder + "/protocol.sock", frames, roundtrip::Answers::Protocol,
                                   processor);
    const vorn::Descriptor bare = roundtrip::connectTo(folder + "/bytes.sock");
    std::string buffer(frames.response.size(), '\0');
    Alone alone(database);
    useAgentAt(folder + "/protocol.sock", folder);
    const Session canned;

    Ways ways;
    ways.add("bare", [&](const Person&) {
        require(roundtrip::sendAll(bare.get(), frames.request) &&
                    roundtrip::receiveAll(bare.get(), &buffer, buffer.size()),
                "bare socket");
    });
    ways.add("libvex", [&](const Person& person) { find(canned.handle, person.byName); });
    ways.add("agent_health", [&](const Person&) { askForHealth(real.handle); });
    ways.add("agent_by_name", [&](const Person& person) { find(real.handle, person.byName); });
    ways.add("agent_by_number", [&](const Person& person) { find(real.handle, person.byNumber); });
    ways.add("agent_by_guid", [&](const Person& person) { lookUp(real.handle, person.guid); });
    ways.add("directory_by_name", [&](const Person& person) { alone.find(person.byName); });
    ways.add("directory_by_number", [&](const Person& person) { alone.find(person.byNumber); });
    ways.add("directory_by_guid", [&](const Person& person) { alone.lookUp(person.guid); });
    ways.takeTurns(people);
    print(frames, ways.medians());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4 && argc != 5) {
        std::fputs("usage: vex_roundtrip DATABASE KEYS FOLDER [PEER-PROCESSOR]\n", stderr);
        return 2;
    }
    try {
        measure(argv[1], argv[2], argv[3], argc == 5 ? std::atoi(argv[4]) : -1);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "vex_roundtrip: %s\n", error.what());
        return 1;
    }
}
