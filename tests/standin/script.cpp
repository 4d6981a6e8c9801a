// SPDX-License-Identifier: Apache-2.0
// Makes the stand-in a shared object that a running slapd loads in libvex's
// place: the tables come from a script file, the calls go to a log file.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <cstdlib>

#include "tests/standin/state.h"

namespace {

using boost::property_tree::ptree;
using namespace standin;

std::string fromHex(const std::string& hex) {
    std::string bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    return bytes;
}

// "text", {"hex": "00ff"} or {"none": true}.
Value readValue(const ptree& node) {
    if (node.empty()) return Value(node.data());
    if (auto hex = node.get_optional<std::string>("hex")) return Value(fromHex(*hex));
    return noData();
}

// ["name", value...], {"unreadable": "name", "code": 8} or {"nameless": true}.
Attribute readAttribute(const ptree& node) {
    if (auto name = node.get_optional<std::string>("unreadable"))
        return unreadable(*name, node.get<int>("code"));
    if (node.get_optional<bool>("nameless")) return nameless();
    Attribute attribute{node.front().second.data(), {}, 0, true};
    for (auto place = std::next(node.begin()); place != node.end(); ++place)
        attribute.values.push_back(readValue(place->second));
    return attribute;
}

Object readObject(const ptree& node) {
    Object object;
    for (auto& [key, attribute] : node) object.push_back(readAttribute(attribute));
    return object;
}

// Objects by DN or GUID, or a number: the code instead.
std::map<std::string, Lookup> readLookups(const ptree& node) {
    std::map<std::string, Lookup> lookups;
    for (auto& [key, value] : node)
        lookups[key] = value.empty() ? Lookup{{}, value.get_value<int>()} : Lookup{readObject(value), 0};
    return lookups;
}

std::optional<std::string> readText(const ptree& node, const char* key) {
    auto text = node.get_optional<std::string>(key);
    return text ? std::optional(*text) : std::nullopt;
}

Health readHealth(const ptree& node) {
    return {node.get("condition", 0), node.get("system", 0), node.get("code", 0), readText(node, "text")};
}

void readSearch(const ptree& node, Tables* tables) {
    Match match{readText(node, "filter"), readText(node, "base"), readText(node, "domain"), {}};
    if (auto scope = node.get_optional<int>("scope")) match.scope = *scope;
    Found found;
    if (auto objects = node.get_child_optional("objects"))
        for (auto& [key, object] : *objects) found.objects.push_back(readObject(object));
    found.end = node.get("end", static_cast<int>(VEX_END_OF_RESULTS));
    found.total = node.get("total", -1);
    found.isLastPage = node.get("last", 1);
    if (match.filter || match.base || match.domain || match.scope)
        tables->matches.emplace_back(std::move(match), std::move(found));
    else
        tables->searches.push_back(std::move(found));
}

// Numbers by function, whose names are checked.
std::map<std::string, int, std::less<>> readNumbers(const ptree& node) {
    std::map<std::string, int, std::less<>> numbers;
    for (auto& [function, value] : node) {
        checkFunction(function);
        numbers[function] = value.get_value<int>();
    }
    return numbers;
}

void readAnswers(const ptree& node, Tables* tables) {
    for (auto& [function, codes] : node) {
        checkFunction(function);
        for (auto& [key, code] : codes) tables->answers[function].push_back(code.get_value<int>());
    }
}

void readUsers(const ptree& node, Tables* tables) {
    for (auto& [name, passwords] : node)
        for (auto& [password, code] : passwords) tables->users[name][password] = code.get_value<int>();
}

void readSection(const std::string& name, const ptree& node, Tables* tables) {
    if (name == "answers")
        readAnswers(node, tables);
    else if (name == "always")
        tables->standing = readNumbers(node);
    else if (name == "delays")
        tables->delays = readNumbers(node);
    else if (name == "users")
        readUsers(node, tables);
    else if (name == "fetch")
        tables->fetches = readLookups(node);
    else if (name == "lookup")
        tables->lookups = readLookups(node);
    else if (name == "health")
        tables->health = readHealth(node);
    else if (name == "error")
        tables->protocolError = readHealth(node);
    else if (name == "searches")
        for (auto& [key, search] : node) readSearch(search, tables);
    else if (name == "supported")
        for (auto& [key, attribute] : node) tables->supported.push_back(attribute.data());
    else
        throw std::invalid_argument("unknown section " + name);
}

Tables readScript(const char* path) {
    ptree root;
    boost::property_tree::read_json(path, root);
    Tables tables;
    for (auto& [name, node] : root) readSection(name, node, &tables);
    return tables;
}

// One write a line, so that the lines of several threads and processes stay whole.
void writeLine(const std::string& line) {
    const char* path = std::getenv("VEX_STANDIN_LOG");
    if (!path) return;
    int file = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (file < 0) return;
    std::string whole = line + "\n";
    [[maybe_unused]] ssize_t written = write(file, whole.data(), whole.size());
    close(file);
}

void finish() {
    std::lock_guard guard(state().mutex);
    for (const std::string& line : listLeaks(state().handles)) writeLine("leak: " + line);
}

// Reads the script when it is another file, or another version, than last time.
// One that cannot be read leaves the tables as they were.
void refresh(State& state) {
    // Before the first call there is nothing to leak, and a sanitized module ends the
    // process ahead of whatever was registered when libraries were loaded.
    [[maybe_unused]] static const int registered = std::atexit(finish);
    static struct stat last {};
    const char* path = std::getenv("VEX_STANDIN_SCRIPT");
    struct stat now {};
    if (!path || stat(path, &now) != 0) return;
    if (now.st_ino == last.st_ino && now.st_size == last.st_size &&
        now.st_mtim.tv_sec == last.st_mtim.tv_sec && now.st_mtim.tv_nsec == last.st_mtim.tv_nsec)
        return;
    last = now;
    try {
        state.tables = readScript(path);
    } catch (const std::exception& error) {
        state.fail(std::string("script: ") + error.what());
    }
}

__attribute__((constructor)) void start() {
    state().beforeCall = refresh;
    state().sink = writeLine;
}

}  // namespace
