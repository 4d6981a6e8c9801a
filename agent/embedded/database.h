// SPDX-License-Identifier: Apache-2.0
// The embedded directory's file: an LDB database on LMDB.
//
// LMDB lets any number of threads and processes read while one writes, so a
// change made with ldbmodify shows at once. Each thread that reads has a handle
// of its own for the time (LDB's are not to be shared); handles are kept for the
// next thread. The file is opened for reading only, but for the time of a change that the
// agent makes itself (agent/embedded/password_store.h).
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "agent/directory/attributes.h"
#include "agent/directory/ldb.h"
#include "vorn/guarded.h"

namespace vexagent {

// A database that cannot be opened or built; what() is one line.
class DatabaseError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// LDB keeps one list of open LMDB files without a lock of its own, so a context
// is opened and closed by one thread at a time.
struct LdbClose {
    void operator()(ldb_context* ldb) const;
};
using LdbContext = std::unique_ptr<ldb_context, LdbClose>;

// What LDB says about a failure of a context's, or else what its code means.
std::string errorText(ldb_context* ldb, int code);

enum class Access {
    Read,
    Change,
    Create  // makes a new file, and is quick about it: what is written is not safe until the end
};

// Opens a context on a file. Throws DatabaseError.
LdbContext openLdb(const std::string& path, Access access);

// A read that failed, which says nothing about what is there: an LDB error code (an LDAP
// result code) and its text.
class ReadError : public DatabaseError {
  public:
    ReadError(int code, const std::string& text) : DatabaseError(text), m_code(code) {}
    int code() const { return m_code; }

  private:
    int m_code;
};

// Sees one object and tells whether to go on. The message is the visitor's to
// keep (talloc_steal) or to leave.
using Visitor = std::function<bool(ldb_message*)>;

// One thread's view of the database. Throws ReadError when it cannot be read.
class Handle {
  public:
    explicit Handle(LdbContext ldb) : m_ldb(std::move(ldb)) {}

    ldb_context* ldb() const { return m_ldb.get(); }

    // Visits what a filter tree selects. attributes is null-terminated; null
    // means all.
    void search(ldb_dn* base, ldb_scope scope, ParseTree* tree, const char* const* attributes,
                const Visitor& visit);

    // Visits every object of the database with the attribute value, from its
    // index when it has one.
    void find(const char* attribute, std::string_view value, const char* const* attributes,
              const Visitor& visit);

    // The object with this DN, in the pool; null when there is none. A DN that holds what
    // its attributes cannot, such as a number that is none, is nobody's.
    ldb_message* read(void* pool, ldb_dn* dn, const char* const* attributes = nullptr);

    // The object with these GUID bytes, in the pool; null when there is none.
    ldb_message* readByGuid(void* pool, std::string_view guid, const char* const* attributes = nullptr);

    // A number that grows with every change; nothing when it cannot be read.
    std::optional<std::uint64_t> sequence();

  private:
    [[noreturn]] void fail(int code) const;

    LdbContext m_ldb;
};

class Database {
  public:
    // Opens an existing file. Throws DatabaseError when it is none that can be
    // served.
    explicit Database(std::string path);

    // A handle for the calling thread, given back when the lease ends.
    class Lease {
      public:
        Lease(Database& database, std::unique_ptr<Handle> handle)
            : m_database(&database), m_handle(std::move(handle)) {}
        Lease(Lease&&) = default;
        ~Lease() {
            if (m_handle) m_database->giveBack(std::move(m_handle));
        }
        Handle* operator->() const { return m_handle.get(); }
        Handle& operator*() const { return *m_handle; }

      private:
        Database* m_database;
        std::unique_ptr<Handle> m_handle;
    };

    // Throws DatabaseError when the file cannot be opened any more.
    Lease lease();

    const std::string& path() const { return m_path; }

  private:
    struct Handles {
        std::vector<std::unique_ptr<Handle>> idle;
        std::size_t count = 0;  // with those that are leased
    };

    void giveBack(std::unique_ptr<Handle> handle);

    const std::string m_path;
    vorn::Guarded<Handles> m_handles;
};

// The attributes that have an index, and those of them whose values name one
// object or few.
bool isIndexed(std::string_view attribute);
bool isSelective(std::string_view attribute);

// The records that tell LDB about indexes and matching rules, as LDIF.
std::string schemaLdif();

}  // namespace vexagent
