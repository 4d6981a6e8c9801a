// SPDX-License-Identifier: Apache-2.0
#include "bench/load/plan.h"

#include <charconv>
#include <fstream>
#include <functional>
#include <map>
#include <stdexcept>

namespace load {

const char kUsage[] =
    "usage: ldap_load lookup|enumeration|paged|bind --port PORT [option value]...\n"
    "  --host ADDRESS         an IPv4 address (127.0.0.1)\n"
    "  --keys FILE            one key a line, for every %s in --filter or --dn\n"
    "  --seed N               of the order in which keys are drawn (1)\n"
    "  --base DN --scope N --filter TEXT --attributes a,b,c\n"
    "  --page-size N          paged: entries a page\n"
    "  --dn DN --password P   bind: as whom\n"
    "  --login DN --login-password P   binds first, for the other modes\n"
    "  --connections N --outstanding N   requests at once on each connection (1, 1)\n"
    "  --prime yes            asks for each key once beforehand\n"
    "  --warmup S --seconds S (0.5, 2)\n"
    "  --count N              so many operations instead, each key once, no warm-up\n"
    "  --stepwise yes         measures once for each line of standard input\n"
    "  --expect-code N        the result code of every answer (0)\n"
    "  --expect-entries N     how many entries each search has\n"
    "  --expect-key yes       every entry holds the key that was asked for\n"
    "  --watch PID            tells the processor time that this process took; repeatable\n";

namespace {

template <typename Number>
Number parse(const std::string& text) {
    Number value{};
    const char* const end = text.data() + text.size();
    const auto [at, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || at != end) throw std::invalid_argument("not a number: " + text);
    return value;
}

bool parseYes(const std::string& text) {
    if (text != "yes" && text != "no") throw std::invalid_argument("neither yes nor no: " + text);
    return text == "yes";
}

Mode parseMode(const std::string& text) {
    static const std::map<std::string, Mode> modes = {{"lookup", Mode::Lookup},
                                                      {"enumeration", Mode::Enumeration},
                                                      {"paged", Mode::Paged},
                                                      {"bind", Mode::Bind}};
    const auto found = modes.find(text);
    if (found == modes.end()) throw std::invalid_argument("no such mode: " + text);
    return found->second;
}

std::vector<std::string> readKeys(const std::string& name) {
    std::ifstream file(name);
    std::vector<std::string> keys;
    for (std::string line; std::getline(file, line);) keys.push_back(line);
    if (keys.empty()) throw std::invalid_argument("no keys in " + name);
    return keys;
}

std::vector<std::string> split(const std::string& text) {
    std::vector<std::string> parts;
    for (std::size_t start = 0; start <= text.size();) {
        const std::size_t comma = std::min(text.find(',', start), text.size());
        if (comma > start) parts.push_back(text.substr(start, comma - start));
        start = comma + 1;
    }
    return parts;
}

using Setter = std::function<void(Plan&, const std::string&)>;

const std::map<std::string, Setter> kOptions = {
    {"--host", [](Plan& plan, const std::string& text) { plan.host = text; }},
    {"--port", [](Plan& plan, const std::string& text) { plan.port = parse<std::uint16_t>(text); }},
    {"--keys", [](Plan& plan, const std::string& text) { plan.keys = readKeys(text); }},
    {"--seed", [](Plan& plan, const std::string& text) { plan.seed = parse<std::uint64_t>(text); }},
    {"--base", [](Plan& plan, const std::string& text) { plan.search.base = text; }},
    {"--scope", [](Plan& plan, const std::string& text) { plan.search.scope = parse<std::uint32_t>(text); }},
    {"--filter", [](Plan& plan, const std::string& text) { plan.search.filter = text; }},
    {"--attributes", [](Plan& plan, const std::string& text) { plan.search.attributes = split(text); }},
    {"--page-size", [](Plan& plan, const std::string& text) { plan.pageSize = parse<std::uint32_t>(text); }},
    {"--dn", [](Plan& plan, const std::string& text) { plan.bindDn = text; }},
    {"--password", [](Plan& plan, const std::string& text) { plan.bindPassword = text; }},
    {"--login", [](Plan& plan, const std::string& text) { plan.loginDn = text; }},
    {"--login-password", [](Plan& plan, const std::string& text) { plan.loginPassword = text; }},
    {"--connections", [](Plan& plan, const std::string& text) { plan.connections = parse<unsigned>(text); }},
    {"--outstanding", [](Plan& plan, const std::string& text) { plan.outstanding = parse<unsigned>(text); }},
    {"--prime", [](Plan& plan, const std::string& text) { plan.prime = parseYes(text); }},
    {"--warmup", [](Plan& plan, const std::string& text) { plan.warmup = parse<double>(text); }},
    {"--seconds", [](Plan& plan, const std::string& text) { plan.seconds = parse<double>(text); }},
    {"--count", [](Plan& plan, const std::string& text) { plan.count = parse<std::uint64_t>(text); }},
    {"--stepwise", [](Plan& plan, const std::string& text) { plan.stepwise = parseYes(text); }},
    {"--expect-code",
     [](Plan& plan, const std::string& text) { plan.expectCode = parse<std::uint32_t>(text); }},
    {"--expect-entries",
     [](Plan& plan, const std::string& text) { plan.expectEntries = parse<std::uint64_t>(text); }},
    {"--expect-key", [](Plan& plan, const std::string& text) { plan.expectKey = parseYes(text); }},
    {"--watch", [](Plan& plan, const std::string& text) { plan.watched.push_back(parse<pid_t>(text)); }},
};

void check(const Plan& plan) {
    const auto require = [](bool holds, const char* complaint) {
        if (!holds) throw std::invalid_argument(complaint);
    };
    require(plan.port != 0, "--port is missing");
    require(plan.connections >= 1 && plan.connections <= 1024, "--connections is not 1 to 1024");
    require(plan.outstanding >= 1 && plan.outstanding <= 1024, "--outstanding is not 1 to 1024");
    const bool keyed = plan.mode == Mode::Lookup || plan.mode == Mode::Bind;
    require(!keyed || !plan.keys.empty(), "--keys is missing");
    require(plan.mode != Mode::Bind || !plan.bindDn.empty(), "--dn is missing");
    require(plan.mode != Mode::Paged || plan.pageSize > 0, "--page-size is missing");
    // A connection's binds, and the pages of one search, come one after the other.
    const bool inTurn = plan.mode == Mode::Bind || plan.mode == Mode::Paged;
    require(!inTurn || plan.outstanding == 1, "this mode has one request at once on a connection");
}

}  // namespace

Plan readPlan(int argc, char** argv) {
    const std::vector<std::string> words(argv + 1, argv + argc);
    if (words.empty()) throw std::invalid_argument("the mode is missing");
    Plan plan;
    plan.mode = parseMode(words[0]);
    for (std::size_t i = 1; i < words.size(); i += 2) {
        const auto option = kOptions.find(words[i]);
        if (option == kOptions.end()) throw std::invalid_argument("no such option: " + words[i]);
        if (i + 1 == words.size()) throw std::invalid_argument(words[i] + " without a value");
        option->second(plan, words[i + 1]);
    }
    check(plan);
    return plan;
}

}  // namespace load
