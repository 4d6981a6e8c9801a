// SPDX-License-Identifier: Apache-2.0
#include "tests/standin/vex_standin.h"

#include <algorithm>
#include <stdexcept>

#include "tests/standin/state.h"

namespace standin {

namespace {

constexpr std::string_view kRequests[] = {"vexSessionOpen",
                                          "vexSessionClose",
                                          "vexSetOption",
                                          "vexLdapSearchOpen",
                                          "vexLdapSearchNext",
                                          "vexLdapSearchClose",
                                          "vexLdapFetch",
                                          "vexSystemHealthInfo",
                                          "vexLookupObjectByGuid",
                                          "vexExpectLookups",
                                          "vexGetLastProtocolError",
                                          "vexGetObjectSupportedAttributes",
                                          "vexAuthValidatePlainTextUser",
                                          "vexAuthChangePassword"};

constexpr std::string_view kOthers[] = {
    "vexGetVexCodeStr",        "vexGetErrSystemStr",       "vexGetAttributeStr",  "vexGetAttributeBool",
    "vexGetAttributeBlobList", "vexGetFirstAttribute",     "vexGetNextAttribute", "ChmCloneObject",
    "vexFreeString",           "vexFreeAttributeBlobList", "vexFreeStringSet",    "vexFreeObject",
    "vex_ber_init2",           "vex_ber_printf",           "vex_ber_flatten2",    "vex_ber_free_buf",
    "vex_ber_memcalloc",       "vex_ber_memfree"};

bool isRequest(std::string_view function) {
    return std::find(std::begin(kRequests), std::end(kRequests), function) != std::end(kRequests);
}

// Changes the tables under the lock.
template <class Change>
void change(Change&& body) {
    std::lock_guard guard(state().mutex);
    body(state().tables);
}

}  // namespace

State& state() {
    static State& theOne = *new State;  // never destroyed: code under test may call at exit
    return theOne;
}

void checkFunction(std::string_view function) {
    if (isRequest(function) ||
        std::find(std::begin(kOthers), std::end(kOthers), function) != std::end(kOthers))
        return;
    throw std::invalid_argument("vex.h has no function " + std::string(function));
}

void State::note(const std::string& line) {
    if (sink)
        sink(line);
    else
        calls.push_back(line);
}

void State::fail(const std::string& text) {
    failures.push_back(text);
    if (sink) sink("failure: " + text);
}

int State::nextAnswer(std::string_view function) {
    auto line = tables.answers.find(function);
    if (line != tables.answers.end() && !line->second.empty()) {
        int code = line->second.front();
        line->second.pop_front();
        return code;
    }
    auto standing = tables.standing.find(function);
    return standing == tables.standing.end() ? 0 : standing->second;
}

Value noData() {
    Value value("");
    value.hasData = false;
    return value;
}

Attribute unreadable(std::string name, int code) {
    return {std::move(name), {}, code, true};
}
Attribute nameless() {
    return {"", {}, 0, false};
}

void reset() {
    State& s = state();
    std::lock_guard guard(s.mutex);
    s.tables = {};
    for (auto& [text, function] : s.handles.strings) std::free(const_cast<char*>(text));
    s.handles = {};
    s.actions.clear();
    s.calls.clear();
    s.failures.clear();
    s.showPasswords = true;
    s.acceptEveryone = false;
    s.recordHints = false;
}

void answer(std::string_view function, int code) {
    checkFunction(function);
    change([&](Tables& t) { t.answers[std::string(function)].push_back(code); });
}

void answerAlways(std::string_view function, int code) {
    checkFunction(function);
    change([&](Tables& t) { t.standing[std::string(function)] = code; });
}

void onCall(std::string_view function, std::function<void()> action) {
    checkFunction(function);
    std::lock_guard guard(state().mutex);
    state().actions[std::string(function)] = std::move(action);
}

void search(std::vector<Object> objects, int end) {
    Found found;
    found.objects = std::move(objects);
    found.end = end;
    searchFinds(std::move(found));
}

void searchFinds(Found found) {
    change([&](Tables& t) { t.searches.push_back(std::move(found)); });
}

void searchFor(Match match, Found found) {
    change([&](Tables& t) { t.matches.emplace_back(std::move(match), std::move(found)); });
}

void fetch(const std::string& dn, Object object) {
    change([&](Tables& t) { t.fetches[dn] = {std::move(object), 0}; });
}
void fetchFails(const std::string& dn, int code) {
    change([&](Tables& t) { t.fetches[dn] = {{}, code}; });
}
void lookup(const std::string& guid, Object object) {
    change([&](Tables& t) { t.lookups[guid] = {std::move(object), 0}; });
}
void lookupFails(const std::string& guid, int code) {
    change([&](Tables& t) { t.lookups[guid] = {{}, code}; });
}

void user(const std::string& name, const std::string& password, int code) {
    change([&](Tables& t) { t.users[name][password] = code; });
}

void acceptEveryone(bool accept) {
    std::lock_guard guard(state().mutex);
    state().acceptEveryone = accept;
}

void recordHints(bool record) {
    std::lock_guard guard(state().mutex);
    state().recordHints = record;
}

void showPasswords(bool show) {
    std::lock_guard guard(state().mutex);
    state().showPasswords = show;
}

void supported(std::vector<std::string> names) {
    change([&](Tables& t) { t.supported = std::move(names); });
}
void health(int condition, int errSystem, int errCode, std::optional<std::string> text) {
    change([&](Tables& t) { t.health = {condition, errSystem, errCode, std::move(text)}; });
}
void protocolError(int errSystem, int errCode, std::optional<std::string> text) {
    change([&](Tables& t) { t.protocolError = {0, errSystem, errCode, std::move(text)}; });
}

std::vector<std::string> calls() {
    std::lock_guard guard(state().mutex);
    return state().calls;
}

std::vector<std::string> requests() {
    std::vector<std::string> lines = calls();
    std::erase_if(lines, [](const std::string& line) { return !isRequest(line.substr(0, line.find('('))); });
    return lines;
}

void forgetCalls() {
    std::lock_guard guard(state().mutex);
    state().calls.clear();
}

std::vector<std::string> listLeaks(const Handles& handles) {
    std::vector<std::string> lines;
    for (auto& session : handles.sessions)
        if (!session->closed) lines.push_back("session" + std::to_string(session->number));
    for (auto& one : handles.searches)
        if (!one->closed) lines.push_back("search" + std::to_string(one->number));
    for (auto& object : handles.objects)
        if (!object->freed) lines.push_back("object" + std::to_string(object->number));
    for (auto& [blobs, list] : handles.lists) lines.push_back("list" + std::to_string(list->number));
    for (auto& [names, set] : handles.sets) lines.push_back("set" + std::to_string(set->number));
    for (auto& [text, function] : handles.strings)
        lines.push_back("string \"" + std::string(text) + "\" of " + function);
    return lines;
}

std::vector<std::string> leaks() {
    std::lock_guard guard(state().mutex);
    return listLeaks(state().handles);
}

std::vector<std::string> failures() {
    std::lock_guard guard(state().mutex);
    return state().failures;
}

}  // namespace standin
