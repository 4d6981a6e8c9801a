// SPDX-License-Identifier: Apache-2.0
#include "agent/server/service.h"

#include <chrono>
#include <new>

#include "agent/directory/log.h"
#include "agent/server/uid_base.h"
#include "vex/wire.h"
#include "vorn/secret.h"
#include "vorn/secret_names.h"
#include "vorn/strings.h"

namespace vexagent {
namespace {

namespace wire = vex::wire;
using wire::Body;

constexpr const char* kKindNames[] = {"none",   "search",       "next",       "close",  "fetch",
                                      "lookup", "authenticate", "attributes", "health", "password"};
constexpr std::size_t kLongestInLog = 200;
constexpr std::size_t kLongestDetail = 800;
constexpr std::chrono::milliseconds kMostTimeAhead{100};  // for objects that nobody waits for yet
constexpr std::chrono::milliseconds kQuick{1000};         // after a slower look-up none are added

std::string text(const flatbuffers::String* string) {
    return string == nullptr ? std::string() : string->str();
}

std::string forLog(const std::string& value, std::size_t most = kLongestInLog) {
    std::string shown = vorn::printable(value.substr(0, most));
    if (value.size() > most) shown += "...";
    return shown;
}

int option(const wire::Request& request, int id) {
    int value = 0;
    if (request.options() != nullptr)
        for (const wire::Option* entry : *request.options())
            if (entry != nullptr && entry->id() == id) value = entry->value();
    return value;
}

LoginOptions loginOptions(const wire::Request& request) {
    return {option(request, VEX_OPTION_PREFER_CACHED) != 0, option(request, VEX_OPTION_ALLOW_CACHED) != 0};
}

using Names = flatbuffers::Vector<flatbuffers::Offset<flatbuffers::String>>;

View viewOf(const wire::Request& request, const Names* attributes) {
    View view;
    view.zone = option(request, VEX_OPTION_ZONE_VIEW) != 0;
    view.naming =
        option(request, VEX_OPTION_ZONE_VIEW) == VEX_VIEW_APPLICATIONS ? Naming::Applications : Naming::Hosts;
    if (attributes != nullptr)
        for (const flatbuffers::String* name : *attributes) view.attributes.push_back(text(name));
    return view;
}

// A search that is to give N objects is asked for one more, which tells its
// client whether the limit was reached.
std::size_t firstBatch(const wire::SearchOpen& search) {
    std::size_t wanted = 0;
    for (const int hint : {search.size_limit(), search.page_size()}) {
        if (hint <= 0) continue;
        const std::size_t size = static_cast<std::size_t>(hint) + 1;
        wanted = wanted == 0 ? size : std::min(wanted, size);
    }
    return wanted;
}

Query queryOf(const wire::Request& request) {
    const wire::SearchOpen& search = *request.body_as_SearchOpen();
    Query query;
    query.domain = text(search.domain());
    query.filter = text(search.filter());
    query.base = text(search.base());
    query.scope = search.scope();
    query.typed = option(request, VEX_OPTION_TYPED) != 0;
    query.firstBatch = firstBatch(search);
    query.view = viewOf(request, search.attributes());
    searchByUid(&query);
    return query;
}

// What an object takes of a batch.
std::size_t sizeOf(const Object& object) {
    std::size_t bytes = 0;
    for (const Attribute& attribute : object) {
        bytes += attribute.name.size();
        for (const std::string& value : attribute.values) bytes += value.size();
    }
    return bytes;
}

Answer refused(const char* why) {
    return {.result = Result::agent(VEX_REFUSED, why)};
}

// Needs none itself: the text is that short.
Answer outOfMemory() {
    return {.result = Result::agent(VEX_NO_MEMORY, "out of memory")};
}

// What a request was about, without what it must not show.
std::string subject(const wire::Request& request) {
    if (const auto* search = request.body_as_SearchOpen()) {
        const std::string filter = text(search->filter());
        return "\"" + forLog(vorn::withoutSecrets(filter)) + "\" below \"" + forLog(text(search->base())) +
               "\"";
    }
    if (const auto* fetch = request.body_as_Fetch()) return "\"" + forLog(text(fetch->dn())) + "\"";
    if (const auto* lookup = request.body_as_Lookup()) return "\"" + forLog(text(lookup->guid())) + "\"";
    if (const auto* login = request.body_as_Authenticate()) return "\"" + forLog(text(login->user())) + "\"";
    if (const auto* change = request.body_as_ChangePassword())
        return "\"" + forLog(text(change->user())) + "\"";
    return {};
}

}  // namespace

Service::Service(Directory& directory, vorn::Clock clock, IdSource newId, const vorn::SteadyClock& moments)
    : m_directory(directory), m_moments(moments), m_searches(clock, std::move(newId)) {}

bool Service::isKnown(const wire::Request& request) {
    const auto kind = static_cast<std::size_t>(request.body_type());
    return kind > 0 && kind < kKinds;
}

// In the I/O thread, before anything has been looked at: makes one text, no more.
bool Service::isQuick(const wire::SearchOpen& search) const {
    return m_directory.isQuick(search.scope(), text(search.filter()));
}

Lane Service::lane(const wire::Request& request) const {
    switch (request.body_type()) {
        case Body::SearchOpen:
            return isQuick(*request.body_as_SearchOpen()) ? Lane::Quick : Lane::Slow;
        case Body::Lookup:
            return request.body_as_Lookup()->more() == nullptr ? Lane::Quick : Lane::Slow;
        case Body::SearchNext:
        case Body::Authenticate:
        case Body::SupportedAttributes:
        case Body::ChangePassword:
            return Lane::Slow;
        default:
            return Lane::Quick;
    }
}

std::optional<Bytes> Service::handle(const Client& client, const wire::Request& request) {
    const auto start = m_moments.now();
    Answer answer = answerTo(client, request);
    const auto kind = static_cast<std::size_t>(request.body_type());
    m_served[kind < kKinds ? kind : 0].fetch_add(1, std::memory_order_relaxed);
    if (!answer.result.ok()) m_failed.fetch_add(1, std::memory_order_relaxed);
    const auto time = m_moments.now() - start;
    logRequest(client, request, answer, std::chrono::duration_cast<std::chrono::microseconds>(time).count());
    if (request.body_type() == Body::SearchClose) return std::nullopt;
    return frameOf(client, request.id(), std::move(answer));
}

// Whatever goes wrong, there is an answer.
Answer Service::answerTo(const Client& client, const wire::Request& request) noexcept try {
    try {
        const char* refusal = whyRefused(request);
        return refusal != nullptr ? refused(refusal) : dispatch(client, request);
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& error) {
        return {.result =
                    Result::agent(VEX_DIRECTORY_ERROR, "the directory cannot answer").because(error.what())};
    }
} catch (const std::bad_alloc&) {
    return outOfMemory();
}

// The client is not told of a search whose batch is too large for a frame, or for the
// memory that there is.
Bytes Service::frameOf(const Client& client, std::uint64_t id, Answer answer) {
    const std::uint64_t search = answer.search;
    try {
        Bytes frame = writeResponse(id, answer);
        if (searchIn(frame) != search) closeSearch(client, search);
        return frame;
    } catch (const std::bad_alloc&) {
        closeSearch(client, search);
        if (answer.result.ok()) m_failed.fetch_add(1, std::memory_order_relaxed);
    }
    answer = outOfMemory();
    return writeResponse(id, answer);
}

Answer Service::dispatch(const Client& client, const wire::Request& request) {
    switch (request.body_type()) {
        case Body::SearchOpen:
            return openSearch(client, request);
        case Body::SearchNext:
            return continueSearch(client, request.body_as_SearchNext()->search());
        case Body::SearchClose:
            closeSearch(client, request.body_as_SearchClose()->search());
            return {};
        case Body::Fetch:
            return fetch(request);
        case Body::Lookup:
            return lookup(request);
        case Body::Authenticate:
            return authenticate(client, request);
        case Body::SupportedAttributes:
            return listNames();
        case Body::Health:
            return health();
        case Body::ChangePassword:
            return changePassword(client, request);
        default:
            return refused("unknown request");
    }
}

Answer Service::openSearch(const Client& client, const wire::Request& request) {
    const wire::SearchOpen& search = *request.body_as_SearchOpen();
    if (search.scope() < 0 || search.scope() > 3)
        return {.result = Result::agent(VEX_INVALID_ARGUMENT, "unknown search scope")};
    Answer answer;
    Batch batch;
    std::unique_ptr<Cursor> rest;
    answer.result = m_directory.search(queryOf(request), batch, rest);
    if (!answer.result.ok()) return answer;
    if (rest) {
        answer.search = m_searches.keep(client, std::move(rest));
        if (answer.search == 0) return refused("too many open searches");
    }
    answer.objects = std::move(batch.objects);
    answer.total = batch.total;
    return answer;
}

Answer Service::continueSearch(const Client& client, std::uint64_t id) {
    std::unique_ptr<Cursor> cursor = m_searches.take(client, id);
    if (!cursor) return {.result = Result::agent(VEX_BROKEN_HANDLE, "no such search is open")};
    Answer answer;
    Batch batch;
    try {
        answer.result = cursor->next(batch);
    } catch (...) {
        m_searches.putBack(id, nullptr);
        throw;
    }
    const bool over = !answer.result.ok() || cursor->atEnd();
    m_searches.putBack(id, over ? nullptr : std::move(cursor));
    if (!answer.result.ok()) return answer;
    answer.search = over ? 0 : id;
    answer.objects = std::move(batch.objects);
    answer.total = batch.total;
    return answer;
}

Answer Service::fetch(const wire::Request& request) {
    const wire::Fetch& wanted = *request.body_as_Fetch();
    Answer answer;
    Object object;
    answer.result = m_directory.fetch(text(wanted.domain()), text(wanted.dn()),
                                      viewOf(request, wanted.attributes()), object);
    if (!answer.result.ok()) return answer;
    answer.objects.push_back(std::move(object));
    answer.total = 1;
    return answer;
}

Answer Service::lookup(const wire::Request& request) {
    const wire::Lookup& wanted = *request.body_as_Lookup();
    const View view = viewOf(request, nullptr);
    const auto begin = m_moments.now();
    Answer answer;
    Object object;
    answer.result = m_directory.lookup(text(wanted.guid()), view, object);
    if (!answer.result.ok()) return answer;
    answer.objects.push_back(std::move(object));
    answer.total = 1;
    if (wanted.more() != nullptr && m_moments.now() - begin < kQuick)
        lookUpAhead(*wanted.more(), view, answer.objects);
    return answer;
}

// Adds what the client will ask for next, as far as it keeps nobody waiting and fits into
// a batch. What is left out here, for whatever reason, the client asks for by itself.
void Service::lookUpAhead(const Guids& guids, const View& view, std::vector<Object>& objects) {
    std::vector<std::string> texts;
    for (const flatbuffers::String* guid : guids) texts.push_back(text(guid));
    std::optional<vorn::Moment> end;  // counts from the first: one question may have found them all
    std::size_t bytes = sizeOf(objects.front());
    m_directory.lookupAhead(texts, view, [&](Object&& object) {
        bytes += sizeOf(object);
        if (bytes > wire::kBatchBytes) return false;
        objects.push_back(std::move(object));
        if (!end) end = m_moments.now() + kMostTimeAhead;
        return m_moments.now() < *end;
    });
}

Answer Service::authenticate(const Client& client, const wire::Request& request) {
    const wire::Authenticate& login = *request.body_as_Authenticate();
    const std::string user = text(login.user());
    const vorn::Secret password(flatbuffers::GetStringView(login.password()));
    Answer answer;
    answer.result = m_directory.authenticate(user, password.text(), loginOptions(request)).result();
    if (!answer.result.ok())
        AGENT_LOG(vorn::Logger::kWarning, "authentication of \"%s\" failed for pid %d uid %u: %s (code %d)",
                  forLog(user).c_str(), static_cast<int>(client.pid), static_cast<unsigned>(client.uid),
                  forLog(answer.result.whole(), kLongestDetail).c_str(), answer.result.code);
    return answer;
}

// Both outcomes are news for an administrator.
Answer Service::changePassword(const Client& client, const wire::Request& request) {
    const wire::ChangePassword& change = *request.body_as_ChangePassword();
    const std::string user = text(change.user());
    const vorn::Secret oldPassword(flatbuffers::GetStringView(change.old_password()));
    const vorn::Secret newPassword(flatbuffers::GetStringView(change.new_password()));
    Answer answer;
    answer.result = m_directory.changePassword(user, oldPassword.text(), newPassword.text());
    const std::string outcome =
        answer.result.ok() ? "done" : "failed: " + forLog(answer.result.whole(), kLongestDetail);
    AGENT_LOG(vorn::Logger::kWarning, "change of the password of \"%s\" for pid %d uid %u: %s (code %d)",
              forLog(user).c_str(), static_cast<int>(client.pid), static_cast<unsigned>(client.uid),
              outcome.c_str(), answer.result.code);
    return answer;
}

Answer Service::listNames() {
    Answer answer;
    answer.result = m_directory.supportedAttributes(answer.names);
    return answer;
}

// The request itself succeeds; what it found is the condition.
Answer Service::health() {
    Answer answer;
    answer.result = m_directory.health();
    answer.condition = answer.result.code;
    answer.result.code = VEX_OK;
    return answer;
}

std::string Service::statistics() const {
    std::string line = "requests served:";
    for (std::size_t kind = 1; kind < kKinds; ++kind)
        line += std::string(" ") + kKindNames[kind] + " " + std::to_string(m_served[kind].load()) + ",";
    line += " failed " + std::to_string(m_failed.load());
    return line + "; open searches: " + std::to_string(m_searches.count()) +
           "; client processes: " + std::to_string(m_searches.clients());
}

// A record for which there is no memory is lost; the answer is not.
void Service::logRequest(const Client& client, const wire::Request& request, const Answer& answer,
                         long micros) noexcept try {
    const auto kind = static_cast<std::size_t>(request.body_type());
    AGENT_LOG(vorn::Logger::kInfo, "%s %s from pid %d uid %u: code %d, %zu objects, %ld us",
              kKindNames[kind < kKinds ? kind : 0], subject(request).c_str(), static_cast<int>(client.pid),
              static_cast<unsigned>(client.uid), answer.result.code, answer.objects.size(), micros);
    // What a client is not told; where it is about a password, it has been written already.
    const bool written =
        request.body_type() == Body::Authenticate || request.body_type() == Body::ChangePassword;
    if (!answer.result.ok() && !answer.result.detail.empty() && !written)
        AGENT_LOG(vorn::Logger::kWarning, "%s failed for pid %d uid %u: %s",
                  kKindNames[kind < kKinds ? kind : 0], static_cast<int>(client.pid),
                  static_cast<unsigned>(client.uid), forLog(answer.result.detail, kLongestDetail).c_str());
    if (answer.result.code == VEX_REFUSED && !written)
        AGENT_LOG(vorn::Logger::kWarning, "refused a request of pid %d uid %u: %s",
                  static_cast<int>(client.pid), static_cast<unsigned>(client.uid),
                  answer.result.errText.c_str());
} catch (const std::bad_alloc&) {
}

}  // namespace vexagent
