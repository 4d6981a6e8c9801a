// SPDX-License-Identifier: Apache-2.0
// What the stand-in knows: shared by its C functions, its tables and its script.
#pragma once

#include <deque>
#include <map>
#include <memory>
#include <mutex>

#include "tests/standin/vex_standin.h"

struct vexSession {
    int number;
    bool closed = false;
};

struct vexObject {
    int number;
    std::shared_ptr<const standin::Object> content;
    bool freed = false;
};

namespace standin {

struct Search : vexSearchHandle {
    int number = 0;
    Found found;
    std::size_t next = 0;
    bool closed = false;
};

// A list of values that was handed out, with the bytes that it points to.
struct BlobList {
    int number;
    std::vector<std::string> bytes;
    std::vector<vexBlob> blobs;
};

struct NameSet : vexStringSet {
    int number = 0;
    std::vector<std::string> names;
    std::vector<char*> pointers;
};

struct Health {
    int condition = 0;
    int errSystem = 0;
    int errCode = 0;
    std::optional<std::string> text;
};

// An object, or the code instead of it.
struct Lookup {
    Object object;
    int code = 0;
};

// What the test says: replaced as a whole by a script.
struct Tables {
    std::map<std::string, std::deque<int>, std::less<>> answers;
    std::map<std::string, int, std::less<>> standing;
    std::deque<Found> searches;
    std::vector<std::pair<Match, Found>> matches;
    std::map<std::string, Lookup> fetches;
    std::map<std::string, Lookup> lookups;
    std::map<std::string, std::map<std::string, int>> users;
    std::vector<std::string> supported;
    Health health;
    Health protocolError;
    std::map<std::string, int, std::less<>> delays;  // milliseconds before the answer
};

// What happened: handles live on after their release, so that a use is noticed.
struct Handles {
    std::vector<std::unique_ptr<vexSession>> sessions;
    std::vector<std::unique_ptr<vexObject>> objects;
    std::vector<std::unique_ptr<Search>> searches;
    std::map<const vexBlob*, std::unique_ptr<BlobList>> lists;
    std::map<const vexStringSet*, std::unique_ptr<NameSet>> sets;
    std::map<const char*, std::string> strings;  // and the function that made each
    int lastList = 0;
    int lastSet = 0;
};

struct State {
    std::mutex mutex;  // guards everything below
    Tables tables;
    Handles handles;
    std::map<std::string, std::function<void()>, std::less<>> actions;
    std::vector<std::string> calls;
    std::vector<std::string> failures;
    bool showPasswords = true;
    bool acceptEveryone = false;
    bool recordHints = false;
    // Set by the shared object: called before each call, and instead of keeping lines.
    std::function<void(State&)> beforeCall;
    std::function<void(const std::string&)> sink;

    void fail(const std::string& text);
    void note(const std::string& line);
    // The code that waits in line for the function, or stands for it.
    int nextAnswer(std::string_view function);
};

State& state();

// Throws std::invalid_argument unless vex/vex.h declares the function.
void checkFunction(std::string_view function);

// What is not given back yet; the state's mutex is held.
std::vector<std::string> listLeaks(const Handles& handles);

}  // namespace standin
