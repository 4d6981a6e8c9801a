// SPDX-License-Identifier: Apache-2.0
// A scripted stand-in for libvex: every function of vex/vex.h, answering from
// tables that the test fills and recording every call. There is no agent.
//
//     standin::reset();
//     standin::user("CN=ann,DC=x", "secret");                    // this password is right
//     standin::search({{{"_dn", {"CN=ann,DC=x"}}, {"cn", {"ann"}}}});  // the next search finds one object
//     standin::answer("vexSessionOpen", VEX_BROKEN_SESSION);     // the next open fails
//     ... run the code under test ...
//     EXPECT_THAT(standin::requests(), ElementsAre("vexSessionOpen(1, 21)"));
//     EXPECT_THAT(standin::leaks(), IsEmpty());
//     EXPECT_THAT(standin::failures(), IsEmpty());
//
// Everything handed out has an owner: leaks() lists what was not given back, and
// failures() what was given back twice, used afterwards, or never handed out.
// Handles are numbered from 1 in the order in which they are handed out, each
// kind apart: session1, search1, object1, list1 (of values), set1 (of names).
//
// Safe for use by several threads. Tables stay until reset().
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "vex/vex.h"

namespace standin {

// One value's bytes; noData() is a value whose data pointer is null.
struct Value {
    Value(const char* text) : bytes(text) {}
    Value(std::string text) : bytes(std::move(text)) {}
    std::string bytes;
    bool hasData = true;
};
Value noData();

// An attribute of an object. Reading one with a code fails with it; one without a
// name is listed with a null pointer for its name.
struct Attribute {
    std::string name;
    std::vector<Value> values;
    int code = 0;
    bool hasName = true;
};
Attribute unreadable(std::string name, int code);
Attribute nameless();

using Object = std::vector<Attribute>;

// What a search finds, and the code after the last object.
struct Found {
    std::vector<Object> objects;
    int end = VEX_END_OF_RESULTS;
    int total = -1;  // shown in the handle; -1: the number of objects
    int isLastPage = 1;
};

// Which searches a Found is for; what is not given matches any.
struct Match {
    std::optional<std::string> filter;
    std::optional<std::string> base;
    std::optional<std::string> domain;
    std::optional<int> scope;
};

// Forgets all tables, calls and handles.
void reset();

// The next call of the function answers the code; several wait in line. A function
// that returns a pointer answers null for any code but 0. Without an answer in
// line a function does what its table says. Throws for a name that is no function.
void answer(std::string_view function, int code);
// The same for every call that finds no answer in line; 0 takes it back.
void answerAlways(std::string_view function, int code);

// Runs before each call of the function is answered, on the calling thread.
void onCall(std::string_view function, std::function<void()> action);

// Searches: one that matches is answered by the first match (any number of times),
// others take the next result in line, and then find nothing.
void search(std::vector<Object> objects, int end = VEX_END_OF_RESULTS);
void searchFinds(Found found);
void searchFor(Match match, Found found);

// vexLdapFetch by DN and vexLookupObjectByGuid; both compare as bytes. What is not
// in the table answers VEX_NO_SUCH_OBJECT or VEX_OBJECT_GONE.
void fetch(const std::string& dn, Object object);
void fetchFails(const std::string& dn, int code);
void lookup(const std::string& guid, Object object);
void lookupFails(const std::string& guid, int code);

// Whether vexExpectLookups is recorded, and answered as scripted; without, it succeeds.
void recordHints(bool record);

// An object as the code under test would get it; freed with vexFreeObject.
vexObject* makeObject(Object object);

// vexAuthValidatePlainTextUser: the code for exactly this name and password. An
// unknown name answers VEX_NO_SUCH_USER, another password VEX_WRONG_PASSWORD.
void user(const std::string& name, const std::string& password, int code = VEX_OK);
// While set, every name and password is right; the tables are not asked.
void acceptEveryone(bool accept);
// Whether calls() shows passwords; without, the stand-in copies none.
void showPasswords(bool show);

void supported(std::vector<std::string> names);
void health(int condition, int errSystem = 0, int errCode = 0, std::optional<std::string> text = {});
void protocolError(int errSystem, int errCode, std::optional<std::string> text = {});

// One line a call, with its arguments:
//     vexSetOption(session1, 4, 1)
//     vexLdapSearchOpen(session1, "", "(uid=a)", "DC=x", ["a","b"], 2, -1, 0)
//     vexFreeObject(object3)        vexSessionClose(null)
std::vector<std::string> calls();
// Of these the ones that ask the agent or change a session, the searches included:
// without reads of objects, names of codes, BER and frees.
std::vector<std::string> requests();
void forgetCalls();

std::vector<std::string> leaks();
std::vector<std::string> failures();

}  // namespace standin
