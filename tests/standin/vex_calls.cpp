// SPDX-License-Identifier: Apache-2.0
// The functions of vex/vex.h, as the stand-in answers them.
#include <strings.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "tests/standin/inside.h"
#include "tests/standin/state.h"

using namespace standin;

// Of vorn, where the code under test has it.
extern "C" __attribute__((weak)) void vorn_assert_no_lock_held();

namespace {

// What libvex may wait for the agent in, closings included.
void mayWait() {
    if (vorn_assert_no_lock_held != nullptr) vorn_assert_no_lock_held();
}

std::string quoted(const char* text) {
    return text ? "\"" + std::string(text) + "\"" : "null";
}

std::string quoted(const char* const* texts) {
    if (!texts) return "null";
    std::string line;
    for (; *texts; ++texts) line += (line.empty() ? "" : ",") + quoted(*texts);
    return "[" + line + "]";
}

std::string named(const vexSession* session) {
    return session ? "session" + std::to_string(session->number) : "null";
}
std::string named(const vexSearchHandle* search) {
    return search ? "search" + std::to_string(static_cast<const Search*>(search)->number) : "null";
}
std::string named(const vexObject* object) {
    return object ? "object" + std::to_string(object->number) : "null";
}

// One call under way: recorded at once, answered under the lock.
class Call {
  public:
    template <class... Parts>
    explicit Call(const char* function, const Parts&... arguments)
        : m_function(function), m_line(function), m_state(state()) {
        std::string text;
        ((text += (text.empty() ? "" : ", ") + arguments), ...);
        m_line += "(" + text + ")";
        pauseAndAct();
        m_guard = std::unique_lock(m_state.mutex);
        m_state.note(m_line);
    }

    Tables& tables() { return m_state.tables; }
    Handles& handles() { return m_state.handles; }
    const std::string& function() const { return m_function; }
    bool acceptEveryone() const { return m_state.acceptEveryone; }

    int answer() { return m_state.nextAnswer(m_function); }
    void fail(const char* why) { m_state.fail(m_line + ": " + why); }

    // The answer for a call on this session: an open one's own, or that it is broken.
    int answer(const vexSession* session) {
        if (!session) return VEX_BROKEN_HANDLE;
        if (session->closed) {
            fail("the session is closed");
            return VEX_BROKEN_HANDLE;
        }
        return answer();
    }

    bool usable(const vexObject* object) {
        if (object && object->freed) fail("the object is freed");
        return object && !object->freed;
    }

    char* newString(const std::string& text) {
        char* copy = strdup(text.c_str());
        handles().strings[copy] = m_function;
        return copy;
    }

    vexObject* newObject(std::shared_ptr<const Object> content) {
        auto& all = handles().objects;
        all.push_back(std::make_unique<vexObject>(
            vexObject{static_cast<int>(all.size()) + 1, std::move(content), false}));
        return all.back().get();
    }

  private:
    // A script's delay and a test's action happen without the lock.
    void pauseAndAct() {
        std::function<void()> action;
        int milliseconds = 0;
        {
            std::lock_guard guard(m_state.mutex);
            if (m_state.beforeCall) m_state.beforeCall(m_state);
            if (auto found = m_state.actions.find(m_function); found != m_state.actions.end())
                action = found->second;
            if (auto found = tables().delays.find(m_function); found != tables().delays.end())
                milliseconds = found->second;
        }
        if (action) action();
        if (milliseconds > 0) std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
    }

    const Inside m_inside;  // before what allocates
    const std::string m_function;
    std::string m_line;
    State& m_state;
    std::unique_lock<std::mutex> m_guard;
};

bool matches(const Match& match, const char* domain, const char* filter, const char* base, int scope) {
    auto same = [](const std::optional<std::string>& wanted, const char* given) {
        return !wanted || *wanted == (given ? given : "");
    };
    return same(match.domain, domain) && same(match.filter, filter) && same(match.base, base) &&
           (!match.scope || *match.scope == scope);
}

const Attribute* attributeOf(const vexObject* object, const char* name) {
    for (const Attribute& attribute : *object->content)
        if (attribute.hasName && name && strcasecmp(attribute.name.c_str(), name) == 0) return &attribute;
    return nullptr;
}

// The attribute to read, or null with the code that says why not.
const Attribute* toRead(Call& call, const vexObject* object, const char* name, int* code) {
    *code = VEX_INVALID_ARGUMENT;
    if (!call.usable(object)) return nullptr;
    if ((*code = call.answer()) != 0) return nullptr;
    const Attribute* attribute = attributeOf(object, name);
    *code = attribute ? attribute->code : static_cast<int>(VEX_NO_SUCH_ATTRIBUTE);
    return *code == 0 ? attribute : nullptr;
}

int giveLookup(Call& call, const std::map<std::string, Lookup>& table, const char* key, vexObject** object) {
    auto found = table.find(key ? key : "");
    if (found == table.end()) return &table == &call.tables().lookups ? VEX_OBJECT_GONE : VEX_NO_SUCH_OBJECT;
    if (found->second.code == 0)
        *object = call.newObject(std::make_shared<const Object>(found->second.object));
    return found->second.code;
}

int giveError(Call& call, const Health& error, int* errSystem, int* errCode, char** errString) {
    *errSystem = error.errSystem;
    *errCode = error.errCode;
    *errString = error.text ? call.newString(*error.text) : nullptr;
    return VEX_OK;
}

int giveName(Call& call, const vexObject* object, unsigned place, char** name) {
    if (!call.usable(object)) return VEX_INVALID_ARGUMENT;
    if (int code = call.answer()) return code;
    if (place >= object->content->size()) return VEX_NO_SUCH_ATTRIBUTE;
    const Attribute& attribute = (*object->content)[place];
    *name = attribute.hasName ? call.newString(attribute.name) : nullptr;
    return VEX_OK;
}

}  // namespace

vexObject* standin::makeObject(Object object) {
    std::lock_guard guard(state().mutex);
    auto& all = state().handles.objects;
    all.push_back(std::make_unique<vexObject>(vexObject{
        static_cast<int>(all.size()) + 1, std::make_shared<const Object>(std::move(object)), false}));
    return all.back().get();
}

extern "C" {

vexCode vexGetVexCodeStr(vexCode code, const char** text) {
    Call call("vexGetVexCodeStr", std::to_string(code));
    if (int failure = call.answer()) return failure;
    static const std::map<int, const char*> names = {
        {0, "success"},         {2, "invalid argument"}, {3, "no memory"},
        {4, "not supported"},   {6, "broken session"},   {7, "end of results"},
        {8, "directory error"}, {9, "no such object"},   {10, "no such attribute"},
        {11, "bad filter"},     {12, "unavailable"},     {13, "no such user"},
        {14, "wrong password"}, {15, "account refused"}, {16, "refused"},
        {32, "broken handle"},  {36, "object gone"}};
    auto found = names.find(code);
    *text = found == names.end() ? "unknown code" : found->second;
    return VEX_OK;
}

vexCode vexGetErrSystemStr(int errSystem, const char** text) {
    Call call("vexGetErrSystemStr", std::to_string(errSystem));
    if (int failure = call.answer()) return failure;
    static const char* const names[] = {"unknown system", "agent", "LDAP", "Kerberos", "system"};
    *text = names[errSystem >= 1 && errSystem <= 4 ? errSystem : 0];
    return VEX_OK;
}

vexCode vexSessionOpen(int kind, int level, vexSession** session) {
    mayWait();
    Call call("vexSessionOpen", std::to_string(kind), std::to_string(level));
    if (int code = call.answer()) return code;
    auto& all = call.handles().sessions;
    all.push_back(std::make_unique<vexSession>(vexSession{static_cast<int>(all.size()) + 1, false}));
    *session = all.back().get();
    return VEX_OK;
}

vexCode vexSessionClose(vexSession* session) {
    mayWait();
    Call call("vexSessionClose", named(session));
    int code = call.answer(session);
    if (session) session->closed = true;
    return code;
}

vexCode vexSetOption(vexSession* session, int option, const void* value, size_t size) {
    int number = 0;
    if (value && size == sizeof number) std::memcpy(&number, value, sizeof number);
    Call call("vexSetOption", named(session), std::to_string(option), std::to_string(number));
    if (!value || size != sizeof number) {
        call.fail("the value has not 4 bytes");
        return VEX_INVALID_ARGUMENT;
    }
    return call.answer(session);
}

vexCode vexLdapSearchOpen(vexSession* session, const char* domain, const char* filter, const char* base,
                          const char* const* attributes, int scope, int sizeLimit, int pageSize,
                          vexSearchHandle** search) {
    mayWait();
    const Inside inside;
    Call call("vexLdapSearchOpen", named(session), quoted(domain), quoted(filter), quoted(base),
              quoted(attributes), std::to_string(scope), std::to_string(sizeLimit), std::to_string(pageSize));
    if (int code = call.answer(session)) return code;
    auto one = std::make_unique<Search>();
    Tables& tables = call.tables();
    auto match = std::find_if(tables.matches.begin(), tables.matches.end(), [&](auto& candidate) {
        return matches(candidate.first, domain, filter, base, scope);
    });
    if (match != tables.matches.end()) {
        one->found = match->second;
    } else if (!tables.searches.empty()) {
        one->found = std::move(tables.searches.front());
        tables.searches.pop_front();
    }
    one->session = session;
    one->total = one->found.total >= 0 ? one->found.total : static_cast<int>(one->found.objects.size());
    one->isLastPage = one->found.isLastPage;
    one->number = static_cast<int>(call.handles().searches.size()) + 1;
    *search = one.get();
    call.handles().searches.push_back(std::move(one));
    return VEX_OK;
}

vexCode vexLdapSearchNext(vexSearchHandle* handle, vexObject** object) {
    mayWait();
    Call call("vexLdapSearchNext", named(handle));
    auto* search = static_cast<Search*>(handle);
    if (!search) return VEX_BROKEN_HANDLE;
    if (search->closed) {
        call.fail("the search is closed");
        return VEX_BROKEN_HANDLE;
    }
    if (int code = call.answer(search->session)) return code;
    if (search->next >= search->found.objects.size()) return search->found.end;
    *object = call.newObject(std::make_shared<const Object>(search->found.objects[search->next++]));
    return VEX_OK;
}

vexCode vexLdapSearchClose(vexSearchHandle* handle) {
    mayWait();
    Call call("vexLdapSearchClose", named(handle));
    auto* search = static_cast<Search*>(handle);
    if (!search) return VEX_BROKEN_HANDLE;
    if (search->closed) {
        call.fail("the search is closed");
        return VEX_BROKEN_HANDLE;
    }
    search->closed = true;
    return call.answer();
}

vexCode vexLdapFetch(vexSession* session, const char* domain, const char* dn, const char* const* attributes,
                     vexObject** object) {
    mayWait();
    const Inside inside;
    Call call("vexLdapFetch", named(session), quoted(domain), quoted(dn), quoted(attributes));
    if (int code = call.answer(session)) return code;
    return giveLookup(call, call.tables().fetches, dn, object);
}

vexCode vexLookupObjectByGuid(vexSession* session, const char* guid, vexObject** object) {
    mayWait();
    const Inside inside;
    Call call("vexLookupObjectByGuid", named(session), quoted(guid));
    if (int code = call.answer(session)) return code;
    return giveLookup(call, call.tables().lookups, guid, object);
}

// Local, and changes no answer: no matter for who reads the calls, unless he says so.
vexCode vexExpectLookups(vexSession* session, const char* const* guids) {
    bool recorded;
    {
        std::lock_guard guard(state().mutex);
        recorded = state().recordHints;
        if (session && session->closed) state().fail("vexExpectLookups: the session is closed");
    }
    if (!recorded) return session && !session->closed ? VEX_OK : VEX_BROKEN_HANDLE;
    const Inside inside;
    Call call("vexExpectLookups", named(session), quoted(guids));
    return call.answer(session);
}

vexCode vexGetAttributeStr(vexSession* session, const vexObject* object, const char* name, char** value) {
    const Inside inside;
    Call call("vexGetAttributeStr", named(session), named(object), quoted(name));
    int code;
    const Attribute* attribute = toRead(call, object, name, &code);
    if (!attribute) return code;
    *value = call.newString(attribute->values.empty() ? "" : attribute->values.front().bytes);
    return VEX_OK;
}

vexCode vexGetAttributeBool(vexSession* session, const vexObject* object, const char* name, int* value) {
    const Inside inside;
    Call call("vexGetAttributeBool", named(session), named(object), quoted(name));
    int code;
    const Attribute* attribute = toRead(call, object, name, &code);
    if (!attribute) return code;
    const std::string text = attribute->values.empty() ? "" : attribute->values.front().bytes;
    *value = text == "TRUE" || text == "true" || std::atoi(text.c_str()) != 0;
    return VEX_OK;
}

vexCode vexGetAttributeBlobList(vexSession* session, const vexObject* object, const char* name,
                                vexBlob** values, int* count) {
    const Inside inside;
    Call call("vexGetAttributeBlobList", named(session), named(object), quoted(name));
    int code;
    const Attribute* attribute = toRead(call, object, name, &code);
    if (!attribute) return code;
    // The bytes belong to the list, so that a read after its release is noticed.
    auto list = std::make_unique<BlobList>();
    list->number = ++call.handles().lastList;
    for (const Value& value : attribute->values) list->bytes.push_back(value.bytes);
    for (std::size_t i = 0; i < list->bytes.size(); ++i) {
        auto* data = reinterpret_cast<const unsigned char*>(list->bytes[i].c_str());
        list->blobs.push_back({static_cast<std::uint32_t>(list->bytes[i].size()),
                               attribute->values[i].hasData ? data : nullptr});
    }
    *count = static_cast<int>(list->blobs.size());
    list->blobs.push_back({0, nullptr});  // an empty list has an address too
    *values = list->blobs.data();
    call.handles().lists[*values] = std::move(list);
    return VEX_OK;
}

vexCode vexGetFirstAttribute(vexSession* session, const vexObject* object, unsigned* cursor, char** name) {
    Call call("vexGetFirstAttribute", named(session), named(object));
    int code = giveName(call, object, 0, name);
    if (code == VEX_OK) *cursor = 0;
    return code;
}

vexCode vexGetNextAttribute(vexSession* session, const vexObject* object, unsigned* cursor, char** name) {
    Call call("vexGetNextAttribute", named(session), named(object));
    int code = giveName(call, object, *cursor + 1, name);
    if (code == VEX_OK) ++*cursor;
    return code;
}

// Local, and no matter for who reads the calls.
size_t vexGetObjectSize(const vexObject* object) {
    if (object == nullptr) return 0;
    size_t bytes = 0;
    for (const Attribute& attribute : *object->content) {
        bytes += attribute.name.size();
        for (const Value& value : attribute.values) bytes += value.bytes.size();
    }
    return bytes;
}

vexObject* ChmCloneObject(const vexObject* object) {
    Call call("ChmCloneObject", named(object));
    if (!call.usable(object) || call.answer() != 0) return nullptr;
    return call.newObject(object->content);
}

vexCode vexAuthValidatePlainTextUser(vexSession* session, const char* user, const char* password, int flags) {
    mayWait();
    bool show;
    {
        std::lock_guard guard(state().mutex);
        show = state().showPasswords;
    }
    const Inside inside;
    Call call("vexAuthValidatePlainTextUser", named(session), quoted(user),
              show ? quoted(password) : std::string("<hidden>"), std::to_string(flags));
    if (int code = call.answer(session)) return code;
    if (call.acceptEveryone()) return VEX_OK;
    auto known = call.tables().users.find(user ? user : "");
    if (known == call.tables().users.end()) return VEX_NO_SUCH_USER;
    for (auto& [right, code] : known->second)
        if (password && right == password) return code;
    return VEX_WRONG_PASSWORD;
}

// The old password is checked as a log-in's; any new one is taken, and becomes the password.
vexCode vexAuthChangePassword(vexSession* session, const char* user, const char* oldPassword,
                              const char* newPassword) {
    mayWait();
    bool show;
    {
        std::lock_guard guard(state().mutex);
        show = state().showPasswords;
    }
    const Inside inside;
    const auto shown = [show](const char* password) {
        return show ? quoted(password) : std::string("<hidden>");
    };
    Call call("vexAuthChangePassword", named(session), quoted(user), shown(oldPassword), shown(newPassword));
    if (int code = call.answer(session)) return code;
    auto known = call.tables().users.find(user ? user : "");
    if (known == call.tables().users.end()) return VEX_NO_SUCH_USER;
    const auto right = known->second.find(oldPassword ? oldPassword : "");
    if (right == known->second.end()) return VEX_WRONG_PASSWORD;
    const int code = right->second;
    if (code == VEX_OK) {
        known->second.erase(right);
        known->second[newPassword ? newPassword : ""] = VEX_OK;
    }
    return code;
}

vexCode vexGetObjectSupportedAttributes(vexSession* session, vexStringSet** names) {
    mayWait();
    Call call("vexGetObjectSupportedAttributes", named(session));
    if (int code = call.answer(session)) return code;
    auto set = std::make_unique<NameSet>();
    set->number = ++call.handles().lastSet;
    set->names = call.tables().supported;
    for (std::string& name : set->names) set->pointers.push_back(name.data());
    set->count = static_cast<int>(set->pointers.size());
    set->strings = set->pointers.data();
    *names = set.get();
    call.handles().sets[*names] = std::move(set);
    return VEX_OK;
}

vexCode vexSystemHealthInfo(vexSession* session, int flags, int* condition, int* errSystem, int* errCode,
                            char** errString) {
    mayWait();
    Call call("vexSystemHealthInfo", named(session), std::to_string(flags));
    if (int code = call.answer(session)) return code;
    *condition = call.tables().health.condition;
    return giveError(call, call.tables().health, errSystem, errCode, errString);
}

vexCode vexGetLastProtocolError(vexSession* session, int* errSystem, int* errCode, char** errString) {
    Call call("vexGetLastProtocolError", named(session));
    if (int code = call.answer(session)) return code;
    return giveError(call, call.tables().protocolError, errSystem, errCode, errString);
}

void vexFreeString(char* text) {
    const Inside inside;
    std::string shown = "null";
    bool known = false;
    {
        // Looked at only when it is ours: a freed text must not be read.
        std::lock_guard guard(state().mutex);
        known = state().handles.strings.count(text) != 0;
        if (text) shown = known ? quoted(text) : "unknown";
    }
    Call call("vexFreeString", shown);
    if (!text) return;
    if (!known) return call.fail("not handed out, or freed before");
    call.handles().strings.erase(text);
    std::free(text);
}

void vexFreeAttributeBlobList(vexBlob* values, int count) {
    const Inside inside;
    std::string shown = values ? "unknown" : "null";
    {
        std::lock_guard guard(state().mutex);
        auto found = state().handles.lists.find(values);
        if (found != state().handles.lists.end()) shown = "list" + std::to_string(found->second->number);
    }
    Call call("vexFreeAttributeBlobList", shown, std::to_string(count));
    if (!values) return;
    auto found = call.handles().lists.find(values);
    if (found == call.handles().lists.end()) return call.fail("not handed out, or freed before");
    if (static_cast<int>(found->second->bytes.size()) != count) call.fail("another count was handed out");
    call.handles().lists.erase(found);
}

void vexFreeStringSet(vexStringSet* names) {
    const Inside inside;
    std::string shown = names ? "unknown" : "null";
    {
        std::lock_guard guard(state().mutex);
        auto found = state().handles.sets.find(names);
        if (found != state().handles.sets.end()) shown = "set" + std::to_string(found->second->number);
    }
    Call call("vexFreeStringSet", shown);
    if (!names) return;
    if (call.handles().sets.erase(names) == 0) call.fail("not handed out, or freed before");
}

void vexFreeObject(vexObject* object) {
    Call call("vexFreeObject", named(object));
    if (!object) return;
    if (object->freed) return call.fail("the object is freed");
    object->freed = true;
}

}  // extern "C"
