// SPDX-License-Identifier: Apache-2.0
#include "agent/embedded/database.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <fstream>

namespace vexagent {
namespace {

// LMDB needs the largest size that a file may grow to beforehand; the file
// itself stays as small as its content.
constexpr char kMapSize[] = "lmdb_env_size:17179869184";

std::mutex& openMutex() {
    static std::mutex mutex;
    return mutex;
}

// LDB explains failures through this hook; they reach the caller as the
// context's error text, so nothing is printed.
void quiet(void*, ldb_debug_level, const char*, va_list) {}

// What stands at the start of the two kinds of file.
constexpr std::string_view kTdbMagic = "TDB file\n";
constexpr std::string_view kLmdbMagic = "\xDE\xC0\xEF\xBE";
constexpr std::size_t kLmdbMagicAt = 16;

// Tells in time, and in words that help, what cannot be served.
void checkKind(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw DatabaseError(path + ": " + std::strerror(errno));
    struct stat status {};
    if (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode))
        throw DatabaseError(path + ": is not a regular file");
    char start[32] = {};
    file.read(start, sizeof start);
    const std::string_view bytes(start, static_cast<std::size_t>(file.gcount()));
    if (bytes.starts_with(kTdbMagic))
        throw DatabaseError(
            path +
            ": is an LDB file on TDB, which cannot be read by several threads; write it out with "
            "\"ldbsearch -H tdb://" +
            path + "\", set embedded.ldif to the result and embedded.database to a new file");
    if (bytes.size() < sizeof start || bytes.substr(kLmdbMagicAt, kLmdbMagic.size()) != kLmdbMagic)
        throw DatabaseError(path + ": is not an LDB file on LMDB");
}

// A search's callback state. Nothing may be thrown through LDB.
struct Visit {
    const Visitor* visit;
    bool stopped = false;
    bool failed = false;
};

bool visitOne(Visit& state, ldb_message* message) {
    try {
        state.stopped = !(*state.visit)(message);
    } catch (...) {
        state.failed = true;
    }
    return !state.stopped && !state.failed;
}

int onReply(Request* request, ldb_reply* reply) {
    if (reply == nullptr) return ldb_request_done(request, LDB_ERR_OPERATIONS_ERROR);
    const Talloc<ldb_reply> owner(reply);
    if (reply->error != LDB_SUCCESS) return ldb_request_done(request, reply->error);
    if (reply->type == LDB_REPLY_DONE) return ldb_request_done(request, LDB_SUCCESS);
    if (reply->type != LDB_REPLY_ENTRY) return LDB_SUCCESS;
    auto* state = static_cast<Visit*>(request->context);
    if (visitOne(*state, reply->message)) return LDB_SUCCESS;
    // LDB takes an error from here for a request that is done already: one that is
    // not would be waited for without end.
    return ldb_request_done(request, LDB_ERR_OPERATIONS_ERROR);
}

void checkIndexes(ldb_context* ldb, const std::string& path) {
    const Pool pool = newPool();
    ldb_dn* dn = ldb_dn_new(pool.get(), ldb, "@INDEXLIST");
    ldb_result* result = nullptr;
    const int code = ldb_search(ldb, pool.get(), &result, dn, LDB_SCOPE_BASE, nullptr, nullptr);
    if (code == LDB_SUCCESS && result->count == 1 && firstValue(result->msgs[0], "@IDXGUID") == "objectGUID")
        return;
    throw DatabaseError(path + ": has no GUID index; write it out with \"ldbsearch -H mdb://" + path +
                        "\", set embedded.ldif to the result and embedded.database to a new file");
}

}  // namespace

void LdbClose::operator()(ldb_context* ldb) const {
    const std::lock_guard lock(openMutex());
    talloc_free(ldb);
}

std::string errorText(ldb_context* ldb, int code) {
    const char* text = ldb_errstring(ldb);
    return text != nullptr ? text : ldb_strerror(code);
}

LdbContext openLdb(const std::string& path, Access access) {
    LdbContext ldb(newLdb().release());
    ldb_set_debug(ldb.get(), quiet, nullptr);
    const char* reading[] = {kMapSize, nullptr};
    const char* loading[] = {kMapSize, "batch_mode:1", "transaction_index_cache_size:200000", nullptr};
    const bool create = access == Access::Create;
    const unsigned existing = LDB_FLG_DONT_CREATE_DB | (access == Access::Read ? LDB_FLG_RDONLY : 0);
    const unsigned flags = create ? LDB_FLG_NOSYNC : existing;
    const std::string url = "mdb://" + path;
    std::unique_lock lock(openMutex());
    const int code = ldb_connect(ldb.get(), url.c_str(), flags, create ? loading : reading);
    lock.unlock();
    if (code != LDB_SUCCESS) throw DatabaseError(path + ": cannot be opened: " + errorText(ldb.get(), code));
    return ldb;
}

void Handle::fail(int code) const {
    throw ReadError(code, errorText(m_ldb.get(), code));
}

void Handle::search(ldb_dn* base, ldb_scope scope, ParseTree* tree, const char* const* attributes,
                    const Visitor& visit) {
    const Pool pool = newPool();
    Visit state{&visit};
    Request* request = nullptr;
    int code = ldb_build_search_req_ex(&request, m_ldb.get(), pool.get(), base, scope, tree, attributes,
                                       nullptr, &state, onReply, nullptr);
    if (code != LDB_SUCCESS) fail(code);
    ldb_set_timeout(m_ldb.get(), request, 0);
    code = ldb_request(m_ldb.get(), request);
    if (code == LDB_SUCCESS) code = ldb_wait(request->handle, LDB_WAIT_ALL);
    if (state.failed) throw std::bad_alloc();
    if (code != LDB_SUCCESS && code != LDB_ERR_NO_SUCH_OBJECT && !state.stopped) fail(code);
}

void Handle::find(const char* attribute, std::string_view value, const char* const* attributes,
                  const Visitor& visit) {
    const Pool pool = newPool();
    auto* tree = talloc_zero(pool.get(), ParseTree);
    ldb_dn* base = ldb_dn_new(pool.get(), m_ldb.get(), nullptr);
    if (tree == nullptr || base == nullptr) throw std::bad_alloc();
    tree->operation = LDB_OP_EQUALITY;
    tree->u.equality.attr = attribute;
    tree->u.equality.value = newValue(tree, value);
    search(base, LDB_SCOPE_SUBTREE, tree, attributes, visit);
}

ldb_message* Handle::read(void* pool, ldb_dn* dn, const char* const* attributes) {
    // LDB answers for such a DN as it does when the file cannot be read.
    if (ldb_dn_is_null(dn) || ldb_dn_get_casefold(dn) == nullptr) return nullptr;
    ldb_message* found = nullptr;
    auto* tree = talloc_zero(pool, ParseTree);
    if (tree == nullptr) throw std::bad_alloc();
    tree->operation = LDB_OP_PRESENT;
    tree->u.present.attr = "objectGUID";
    search(dn, LDB_SCOPE_BASE, tree, attributes, [&](ldb_message* message) {
        found = talloc_steal(pool, message);
        return true;
    });
    return found;
}

ldb_message* Handle::readByGuid(void* pool, std::string_view guid, const char* const* attributes) {
    ldb_message* found = nullptr;
    find("objectGUID", guid, attributes, [&](ldb_message* message) {
        found = talloc_steal(pool, message);
        return true;
    });
    return found;
}

std::optional<std::uint64_t> Handle::sequence() {
    std::uint64_t number = 0;
    if (ldb_sequence_number(m_ldb.get(), LDB_SEQ_HIGHEST_SEQ, &number) != LDB_SUCCESS) return std::nullopt;
    return number;
}

Database::Database(std::string path) : m_path(std::move(path)) {
    checkKind(m_path);
    auto first = std::make_unique<Handle>(openLdb(m_path, Access::Read));
    checkIndexes(first->ldb(), m_path);
    m_handles.lock()->count = 1;
    giveBack(std::move(first));
}

// Whoever has a handle can give it back, with no more memory.
Database::Lease Database::lease() {
    if (const auto handles = m_handles.lock(); !handles->idle.empty()) {
        std::unique_ptr<Handle> handle = std::move(handles->idle.back());
        handles->idle.pop_back();
        return {*this, std::move(handle)};
    }
    auto handle = std::make_unique<Handle>(openLdb(m_path, Access::Read));
    const auto handles = m_handles.lock();
    handles->idle.reserve(handles->count + 1);
    ++handles->count;
    return {*this, std::move(handle)};
}

void Database::giveBack(std::unique_ptr<Handle> handle) {
    m_handles.lock()->idle.push_back(std::move(handle));
}

}  // namespace vexagent
