// SPDX-License-Identifier: Apache-2.0
// The functions of vex/vex.h that may ask the agent.
#include "vex/edge.h"
#include "vex/session.h"
#include "vex/wire.h"

using namespace vex;

namespace {

// How long an agent may take to greet before it counts as busy.
constexpr Milliseconds kGreetingPatience{100};

bool isUsable(const vexSession* session) {
    return session && session->isOpen();
}

// Asks for one object by a finished request. Of a look-up so many more may come with it.
vexCode fetchObject(vexSession& session, const Request& request, vexObject** object, std::size_t more = 0) {
    if (request.isTooLarge()) return session.notAnswered(VEX_REFUSED);
    const vorn::Deadline deadline = session.endpoint.deadline();
    Exchange exchange(session.endpoint, deadline);
    const wire::Response* response = exchange.ask(request);
    if (!response) return session.notAnswered();
    if (response->code() != VEX_OK) return session.answered(*response);
    const auto* objects = response->objects();
    if (!objects || objects->size() == 0 || objects->size() > 1 + more) {
        exchange.reject();
        return session.notAnswered();
    }
    const auto* bytes = objects->Get(0)->bytes();
    *object = new vexObject{ObjectRef::copyOf({bytes->data(), bytes->size()})};
    if (more > 0) session.lookAhead.keep(*objects);
    return session.answered(*response);
}

// Asks for nothing but the response's code.
vexCode askForCode(vexSession& session, const Request& request) {
    if (request.isTooLarge()) return session.notAnswered(VEX_REFUSED);
    const vorn::Deadline deadline = session.endpoint.deadline();
    Exchange exchange(session.endpoint, deadline);
    const wire::Response* response = exchange.ask(request);
    return response ? session.answered(*response) : session.notAnswered();
}

// The record, its array and the texts in one piece of memory.
vexStringSet* newStringSet(const flatbuffers::Vector<flatbuffers::Offset<flatbuffers::String>>* names) {
    const std::size_t count = names ? names->size() : 0;
    std::size_t size = sizeof(vexStringSet) + count * sizeof(char*);
    for (std::size_t i = 0; i < count; ++i) size += names->Get(static_cast<unsigned>(i))->size() + 1;
    auto* memory = static_cast<char*>(::operator new(size));
    auto* set = new (memory) vexStringSet{static_cast<int>(count), nullptr};
    set->strings = reinterpret_cast<char**>(memory + sizeof(vexStringSet));
    char* text = memory + sizeof(vexStringSet) + count * sizeof(char*);
    for (std::size_t i = 0; i < count; ++i) {
        const auto* name = names->Get(static_cast<unsigned>(i));
        std::memcpy(text, name->c_str(), name->size() + 1);
        set->strings[i] = text;
        text += name->size() + 1;
    }
    return set;
}

bool isEmpty(const char* text) {
    return !text || !*text;
}

}  // namespace

vexCode vexSessionOpen(int kind, int level, vexSession** session) {
    return guardedWait([&]() -> vexCode {
        if (!session) return VEX_INVALID_ARGUMENT;
        if (kind != VEX_SESSION_LOCAL || level != VEX_INTERFACE_LEVEL) return VEX_NOT_SUPPORTED;
        auto opened = std::make_shared<vexSession>(configuredEndpoint());
        // A session holds no connection, but it is no use when none can be had.
        std::unique_ptr<Connection> connection = Pool::process().take(opened->endpoint.path);
        // Of an agent that hangs, the request will tell; the session may not need one.
        if (!connection)
            connection = Connection::reach(opened->endpoint, opened->endpoint.deadline(),
                                           std::min(opened->endpoint.timeout, kGreetingPatience));
        if (!connection) return VEX_BROKEN_SESSION;
        Pool::process().give(std::move(connection));
        opened->self = opened;
        *session = opened.get();
        return VEX_OK;
    });
}

vexCode vexSessionClose(vexSession* session) {
    return guardedWait([&]() -> vexCode {
        if (!session || !session->close()) return VEX_BROKEN_HANDLE;
        const std::shared_ptr<vexSession> last = std::move(session->self);
        return VEX_OK;
    });
}

vexCode vexSetOption(vexSession* session, int option, const void* value, size_t size) {
    return guarded([&]() -> vexCode {
        if (!isUsable(session)) return VEX_BROKEN_HANDLE;
        std::int32_t number;
        if (!value || size != sizeof number) return VEX_INVALID_ARGUMENT;
        std::memcpy(&number, value, sizeof number);
        if (!session->setOption(option, number)) return VEX_NOT_SUPPORTED;
        session->lookAhead.dropObjects();  // they were made for other options
        return VEX_OK;
    });
}

vexCode vexLdapSearchOpen(vexSession* session, const char* domain, const char* filter, const char* base,
                          const char* const* attributes, int scope, int sizeLimit, int pageSize,
                          vexSearchHandle** search) {
    return guardedWait([&]() -> vexCode {
        if (!isUsable(session)) return VEX_BROKEN_HANDLE;
        if (!search || scope < 0 || scope > 3) return session->notAnswered(VEX_INVALID_ARGUMENT);
        Request request;
        const auto domainText = request.text(domain);
        const auto filterText = request.text(filter);
        const auto baseText = request.text(base);
        const auto names = request.names(attributes);
        request.finish(session->options(),
                       wire::CreateSearchOpen(request.builder(), domainText, filterText, baseText, names,
                                              scope, std::max(sizeLimit, -1), std::max(pageSize, 0)));
        if (request.isTooLarge()) return session->notAnswered(VEX_REFUSED);
        auto opened = std::make_unique<Search>(session->self);
        const vexCode code = opened->open(request);
        if (code == VEX_OK) *search = opened.release();
        return code;
    });
}

vexCode vexLdapSearchNext(vexSearchHandle* search, vexObject** object) {
    return guardedWait([&]() -> vexCode {
        if (!search || !isUsable(search->session)) return VEX_BROKEN_HANDLE;
        if (!object) return search->session->notAnswered(VEX_INVALID_ARGUMENT);
        return static_cast<Search*>(search)->next(object);
    });
}

vexCode vexLdapSearchClose(vexSearchHandle* search) {
    return guardedWait([&]() -> vexCode {
        if (!search) return VEX_BROKEN_HANDLE;
        const std::unique_ptr<Search> owned(static_cast<Search*>(search));
        owned->close();
        return VEX_OK;
    });
}

vexCode vexLdapFetch(vexSession* session, const char* domain, const char* dn, const char* const* attributes,
                     vexObject** object) {
    return guardedWait([&]() -> vexCode {
        if (!isUsable(session)) return VEX_BROKEN_HANDLE;
        if (!dn || !object) return session->notAnswered(VEX_INVALID_ARGUMENT);
        Request request;
        const auto domainText = request.text(domain);
        const auto dnText = request.text(dn);
        const auto names = request.names(attributes);
        request.finish(session->options(), wire::CreateFetch(request.builder(), domainText, dnText, names));
        return fetchObject(*session, request, object);
    });
}

vexCode vexLookupObjectByGuid(vexSession* session, const char* guid, vexObject** object) {
    return guardedWait([&]() -> vexCode {
        if (!isUsable(session)) return VEX_BROKEN_HANDLE;
        if (!guid || !object) return session->notAnswered(VEX_INVALID_ARGUMENT);
        if (std::optional<ObjectRef> came = session->lookAhead.take(guid)) {
            *object = new vexObject{*std::move(came)};
            return session->succeeded();
        }
        const std::vector<const char*> more = session->lookAhead.missing();
        Request request;
        const auto guidText = request.text(guid);
        const auto moreTexts = request.names(more.data());
        request.finish(session->options(), wire::CreateLookup(request.builder(), guidText, moreTexts));
        return fetchObject(*session, request, object, more.size() - 1);
    });
}

vexCode vexExpectLookups(vexSession* session, const char* const* guids) {
    return guarded([&]() -> vexCode {
        if (!isUsable(session)) return VEX_BROKEN_HANDLE;
        session->lookAhead.expect(guids);
        return VEX_OK;
    });
}

vexCode vexAuthValidatePlainTextUser(vexSession* session, const char* user, const char* password, int flags) {
    return guardedWait([&]() -> vexCode {
        if (!isUsable(session)) return VEX_BROKEN_HANDLE;
        if (flags != 0) return session->notAnswered(VEX_INVALID_ARGUMENT);
        if (isEmpty(user)) return session->notAnswered(VEX_NO_SUCH_USER);
        if (isEmpty(password)) return session->notAnswered(VEX_WRONG_PASSWORD);
        Request request(Secrecy::Secret);
        const auto userText = request.text(user);
        const auto passwordText = request.text(password);
        request.finish(session->options(),
                       wire::CreateAuthenticate(request.builder(), userText, passwordText));
        return askForCode(*session, request);
    });
}

vexCode vexAuthChangePassword(vexSession* session, const char* user, const char* oldPassword,
                              const char* newPassword) {
    return guardedWait([&]() -> vexCode {
        if (!isUsable(session)) return VEX_BROKEN_HANDLE;
        if (isEmpty(user)) return session->notAnswered(VEX_NO_SUCH_USER);
        if (isEmpty(oldPassword)) return session->notAnswered(VEX_WRONG_PASSWORD);
        if (isEmpty(newPassword)) return session->notAnswered(VEX_REFUSED);
        Request request(Secrecy::Secret);
        const auto userText = request.text(user);
        const auto oldText = request.text(oldPassword);
        const auto newText = request.text(newPassword);
        request.finish(session->options(),
                       wire::CreateChangePassword(request.builder(), userText, oldText, newText));
        return askForCode(*session, request);
    });
}

vexCode vexGetObjectSupportedAttributes(vexSession* session, vexStringSet** names) {
    return guardedWait([&]() -> vexCode {
        if (!isUsable(session)) return VEX_BROKEN_HANDLE;
        if (!names) return session->notAnswered(VEX_INVALID_ARGUMENT);
        Request request;
        request.finish(session->options(), wire::CreateSupportedAttributes(request.builder()));
        const vorn::Deadline deadline = session->endpoint.deadline();
        Exchange exchange(session->endpoint, deadline);
        const wire::Response* response = exchange.ask(request);
        if (!response) return session->notAnswered();
        if (response->code() == VEX_OK) *names = newStringSet(response->names());
        return session->answered(*response);
    });
}

// Health is asked for after a failure, to explain it: so it leaves the error of
// the call before as it is.
vexCode vexSystemHealthInfo(vexSession* session, int flags, int* condition, int* errSystem, int* errCode,
                            char** errString) {
    return guardedWait([&]() -> vexCode {
        if (!isUsable(session)) return VEX_BROKEN_HANDLE;
        if (flags != 0 || !condition) return VEX_INVALID_ARGUMENT;
        Request request;
        request.finish(session->options(), wire::CreateHealth(request.builder()));
        const vorn::Deadline deadline = session->endpoint.deadline();
        Exchange exchange(session->endpoint, deadline);
        const wire::Response* response = exchange.ask(request);
        if (!response) return VEX_BROKEN_SESSION;
        if (response->code() != VEX_OK) return response->code();
        if (response->condition() < VEX_OK) {
            exchange.reject();
            return VEX_BROKEN_SESSION;
        }
        const wire::Error* error = response->error();
        const bool hasText = error && error->text();
        if (errString) *errString = hasText ? newString(view(*error->text())) : nullptr;
        put(errSystem, error ? error->system() : 0);
        put(errCode, error ? error->code() : 0);
        *condition = response->condition();
        return VEX_OK;
    });
}

vexCode vexGetLastProtocolError(vexSession* session, int* errSystem, int* errCode, char** errString) {
    return guarded([&]() -> vexCode {
        if (!isUsable(session)) return VEX_BROKEN_HANDLE;
        ProtocolError error;
        const vexCode code = session->lastError(error);
        if (code != VEX_OK) return code;
        if (errString) *errString = error.text ? newString(*error.text) : nullptr;
        put(errSystem, error.system);
        put(errCode, error.code);
        return VEX_OK;
    });
}
