// SPDX-License-Identifier: Apache-2.0
// A program of many requests over libvex, for tests of a running agent.
//
//     vex_load sessions S N     opens S sessions and, shared out among them, N searches of one
//                               entry each; says "open" and keeps all until standard input ends
//     vex_load partial N        opens N searches of everybody, reads one entry of each; the same
//     vex_load rounds N         N rounds of every request, well and ill formed
//
//     vex_load password USER    gives the user a new password: reads the old one and the new
//                               one, a line each, and says the code and the error behind it
//
// Ends with status 0 and, after rounds, a line "rounds OPEN-DESCRIPTORS THREADS" that
// tells what the process holds beyond what it held after the first rounds. Otherwise it
// says what was wrong. The settings file is the one that ZANTHE_CONF names.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include "vex/vex.h"

namespace {

constexpr char kEveryone[] = "(objectClass=*)";
constexpr char kOne[] = "(sAMAccountName=ann)";
const char* const kNames[] = {"uidNumber", nullptr};

[[noreturn]] void fail(const char* call, vexCode code, vexCode expected) {
    std::fprintf(stderr, "vex_load: %s answered %d, not %d\n", call, code, expected);
    std::exit(1);
}

void expect(vexCode expected, const char* call, vexCode code) {
    if (code != expected) fail(call, code, expected);
}

vexSession* open() {
    vexSession* session = nullptr;
    expect(VEX_OK, "vexSessionOpen", vexSessionOpen(VEX_SESSION_LOCAL, VEX_INTERFACE_LEVEL, &session));
    return session;
}

vexSearchHandle* search(vexSession* session, const char* filter) {
    vexSearchHandle* handle = nullptr;
    expect(VEX_OK, "vexLdapSearchOpen",
           vexLdapSearchOpen(session, "", filter, "", kNames, 2, -1, 0, &handle));
    return handle;
}

// Reads objects until the code; returns how many there were.
int readUntil(vexSearchHandle* handle, vexCode end) {
    vexObject* object = nullptr;
    int count = 0;
    vexCode code = VEX_OK;
    while ((code = vexLdapSearchNext(handle, &object)) == VEX_OK) {
        vexFreeObject(object);
        ++count;
    }
    expect(end, "vexLdapSearchNext", code);
    return count;
}

void waitForEndOfInput() {
    std::puts("open");
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
}

void closeAll(const std::vector<vexSession*>& sessions, const std::vector<vexSearchHandle*>& searches) {
    for (vexSearchHandle* handle : searches) expect(VEX_OK, "vexLdapSearchClose", vexLdapSearchClose(handle));
    for (vexSession* session : sessions) expect(VEX_OK, "vexSessionClose", vexSessionClose(session));
}

void sessions(std::size_t sessionCount, std::size_t searchCount) {
    if (sessionCount == 0) return;
    std::vector<vexSession*> sessions;
    std::vector<vexSearchHandle*> searches;
    for (std::size_t i = 0; i < sessionCount; ++i) sessions.push_back(open());
    for (std::size_t i = 0; i < searchCount; ++i) {
        searches.push_back(search(sessions[i % sessionCount], kOne));
        if (readUntil(searches.back(), VEX_END_OF_RESULTS) != 1) std::exit(3);
    }
    waitForEndOfInput();
    closeAll(sessions, searches);
}

void partial(std::size_t count) {
    vexSession* session = open();
    std::vector<vexSearchHandle*> searches;
    for (std::size_t i = 0; i < count; ++i) {
        searches.push_back(search(session, kEveryone));
        vexObject* object = nullptr;
        expect(VEX_OK, "vexLdapSearchNext", vexLdapSearchNext(searches.back(), &object));
        vexFreeObject(object);
    }
    waitForEndOfInput();
    closeAll({session}, searches);
}

// What goes well.
void goodRequests(vexSession* session) {
    const std::int32_t one = 1;
    expect(VEX_OK, "vexSetOption", vexSetOption(session, VEX_OPTION_ZONE_VIEW, &one, sizeof one));
    vexSearchHandle* handle = search(session, kOne);
    vexObject* object = nullptr;
    expect(VEX_OK, "vexLdapSearchNext", vexLdapSearchNext(handle, &object));
    char* guid = nullptr;
    expect(VEX_OK, "vexGetAttributeStr", vexGetAttributeStr(session, object, AD_OBJECT_GUID_TEXT, &guid));
    vexObject* clone = ChmCloneObject(object);
    vexFreeObject(object);
    vexFreeObject(clone);
    expect(VEX_OK, "vexLookupObjectByGuid", vexLookupObjectByGuid(session, guid, &object));
    vexFreeString(guid);
    vexFreeObject(object);
    expect(VEX_OK, "vexLdapSearchClose", vexLdapSearchClose(handle));

    vexStringSet* names = nullptr;
    expect(VEX_OK, "vexGetObjectSupportedAttributes", vexGetObjectSupportedAttributes(session, &names));
    vexFreeStringSet(names);
    int condition = -1, system = 0, code = 0;
    char* text = nullptr;
    expect(VEX_OK, "vexSystemHealthInfo", vexSystemHealthInfo(session, 0, &condition, &system, &code, &text));
    vexFreeString(text);
    expect(VEX_OK, "the health", condition);
}

// What is refused, and a search that is left half-read.
void badRequests(vexSession* session) {
    vexSearchHandle* handle = nullptr;
    expect(VEX_BAD_FILTER, "vexLdapSearchOpen with a bad filter",
           vexLdapSearchOpen(session, "", "(uid=", "", kNames, 2, -1, 0, &handle));
    expect(VEX_NO_SUCH_OBJECT, "vexLdapSearchOpen below nothing",
           vexLdapSearchOpen(session, "", kOne, "OU=Nowhere,DC=example,DC=com", kNames, 2, -1, 0, &handle));
    int system = 0, code = 0;
    char* text = nullptr;
    expect(VEX_OK, "vexGetLastProtocolError", vexGetLastProtocolError(session, &system, &code, &text));
    vexFreeString(text);
    vexObject* object = nullptr;
    expect(VEX_NO_SUCH_OBJECT, "vexLdapFetch",
           vexLdapFetch(session, "", "CN=Nobody,DC=example,DC=com", kNames, &object));
    expect(VEX_OBJECT_GONE, "vexLookupObjectByGuid of nobody",
           vexLookupObjectByGuid(session, "00000000-0000-0000-0000-000000000000", &object));
    expect(VEX_WRONG_PASSWORD, "vexAuthValidatePlainTextUser without a password",
           vexAuthValidatePlainTextUser(session, "CN=Ann,DC=example,DC=com", "", 0));
    handle = search(session, kEveryone);
    expect(VEX_OK, "vexLdapSearchNext", vexLdapSearchNext(handle, &object));
    vexFreeObject(object);
    expect(VEX_OK, "vexLdapSearchClose", vexLdapSearchClose(handle));
}

std::string line() {
    std::string text;
    std::getline(std::cin, text);
    return text;
}

void changePassword(const char* user) {
    const std::string before = line();
    const std::string after = line();
    vexSession* session = open();
    const vexCode code = vexAuthChangePassword(session, user, before.c_str(), after.c_str());
    int system = 0;
    int error = 0;
    char* text = nullptr;
    vexGetLastProtocolError(session, &system, &error, &text);
    std::printf("%d %d %s\n", code, error, text == nullptr ? "" : text);
    vexFreeString(text);
    vexSessionClose(session);
}

std::pair<long, long> descriptorsAndThreads() {
    const auto count = [](const char* folder) {
        long files = 0;
        for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(folder)) ++files;
        return files;
    };
    return {count("/proc/self/fd"), count("/proc/self/task")};
}

void round() {
    vexSession* session = open();
    goodRequests(session);
    badRequests(session);
    expect(VEX_OK, "vexSessionClose", vexSessionClose(session));
}

void rounds(std::size_t count) {
    constexpr std::size_t kFirst = 10;
    std::pair<long, long> before;
    for (std::size_t i = 0; i < count; ++i) {
        if (i == kFirst) before = descriptorsAndThreads();
        round();
        if (i == kFirst) std::puts("begun"), std::fflush(stdout);
    }
    const auto after = descriptorsAndThreads();
    std::printf("rounds %ld %ld\n", after.first - before.first, after.second - before.second);
}

}  // namespace

int main(int count, char** words) {
    const std::string what = count > 1 ? words[1] : "";
    const auto number = [&](int place) { return static_cast<std::size_t>(std::atoll(words[place])); };
    if (what == "sessions" && count == 4) {
        sessions(number(2), number(3));
    } else if (what == "partial" && count == 3) {
        partial(number(2));
    } else if (what == "rounds" && count == 3) {
        rounds(number(2));
    } else if (what == "password" && count == 3) {
        changePassword(words[2]);
    } else {
        std::fprintf(stderr, "usage: vex_load sessions S N | partial N | rounds N | password USER\n");
        return 2;
    }
    return 0;
}
