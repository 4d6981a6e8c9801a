// SPDX-License-Identifier: Apache-2.0
#include "agent/embedded/ldif.h"
#include "agent/directory/account_state.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>

#include "agent/directory/attributes.h"
#include "agent/directory/identifiers.h"
#include "agent/embedded/kinds.h"
#include "vorn/strings.h"
#include "vorn/utf8.h"

namespace vexagent {
namespace {

constexpr const char* kDnAttributes[] = {"member", "memberOf", "manager", "owner", "seeAlso"};

// One record's text and the line it begins at.
struct Chunk {
    std::string text;
    std::size_t line = 0;
};

// Splits LDIF into its records: comments and the version line left out.
class Chunks {
  public:
    explicit Chunks(std::istream& file) : m_file(file) {}

    bool next(Chunk& chunk) {
        chunk = {};
        std::string line;
        bool inComment = false;
        while (std::getline(m_file, line)) {
            ++m_line;
            if (!line.empty() && line.back() == '\r') line.pop_back();
            if (line.empty()) {
                if (!chunk.text.empty()) return true;
                continue;
            }
            const bool continues = line[0] == ' ';
            if (!continues) inComment = line[0] == '#';
            if (inComment) continue;
            if (chunk.text.empty() && isVersion(line)) continue;
            if (chunk.text.empty()) chunk.line = m_line;
            chunk.text += line + "\n";
        }
        return !chunk.text.empty();
    }

  private:
    static bool isVersion(const std::string& line) { return vorn::startsWithIgnoreCase(line, "version:"); }

    std::istream& m_file;
    std::size_t m_line = 0;
};

void setValue(ldb_message* message, const char* name, std::string_view bytes) {
    ldb_msg_remove_attr(message, name);
    const ldb_val value = newValue(message, bytes);
    if (ldb_msg_add_value(message, name, &value, nullptr) != LDB_SUCCESS) throw std::bad_alloc();
}

void completeGuid(ldb_message* message) {
    const std::string_view given = firstValue(message, "objectGUID");
    if (given.size() == kGuidBytes) return;
    if (given.empty()) {
        setValue(message, "objectGUID", guidFromName(ldb_dn_get_casefold(message->dn)));
        return;
    }
    const auto bytes = guidBytes(given);
    if (!bytes) throw DatabaseError("objectGUID is not a GUID");
    setValue(message, "objectGUID", *bytes);
}

void completeSid(ldb_message* message) {
    const std::string_view given = firstValue(message, "objectSid");
    if (!vorn::startsWithIgnoreCase(given, "S-1-")) return;
    const auto bytes = sidBytes(given);
    if (!bytes) throw DatabaseError("objectSid is not a SID");
    setValue(message, "objectSid", *bytes);
}

void completeCategory(ldb_message* message, const std::string& domainDn) {
    if (!firstValue(message, "objectCategory").empty()) return;
    const std::string_view objectClass = specificClass(message);
    if (objectClass.empty()) throw DatabaseError("the entry has no objectClass");
    setValue(message, "objectCategory", categoryDn(categoryOfClass(objectClass), domainDn));
}

void completeRdn(ldb_message* message) {
    const char* name = ldb_dn_get_rdn_name(message->dn);
    const ldb_val* value = ldb_dn_get_rdn_val(message->dn);
    if (ldb_msg_find_element(message, name) != nullptr) return;
    const std::string bytes(bytesOf(*value));
    setValue(message, vorn::lower(name).c_str(), bytes);
}

// Gives DNs the spelling that LDB itself writes, so that the index on member
// finds them by the DN of the member's own record.
void spellDns(ldb_context* ldb, ldb_message* message) {
    for (const char* name : kDnAttributes) {
        ldb_message_element* element = ldb_msg_find_element(message, name);
        for (unsigned i = 0; element != nullptr && i < element->num_values; ++i) {
            ldb_dn* dn = ldb_dn_from_ldb_val(message, ldb, &element->values[i]);
            if (dn == nullptr || !ldb_dn_validate(dn) || ldb_dn_is_null(dn))
                throw DatabaseError(std::string(name) + " is not a DN");
            element->values[i] = newValue(message, spelledDn(dn));
        }
    }
}

// What cannot be read would keep its account out whatever it was meant to say.
void checkState(const ldb_message* message) {
    for (const char* name : kStateAttributes) {
        std::vector<std::string_view> values;
        const ldb_message_element* element = ldb_msg_find_element(message, name);
        for (unsigned i = 0; element != nullptr && i < element->num_values; ++i)
            values.push_back(bytesOf(element->values[i]));
        if (!stateNumber(values)) throw DatabaseError(std::string(name) + " is not one decimal number");
    }
}

void completeEntry(ldb_context* ldb, ldb_message* message, const std::string& domainDn) {
    if (message->dn == nullptr || !ldb_dn_validate(message->dn) || ldb_dn_is_null(message->dn))
        throw DatabaseError("the dn is not a DN");
    if (ldb_dn_is_special(message->dn)) throw DatabaseError("the dn is reserved to the database");
    message->dn = ldb_dn_new(message, ldb, spelledDn(message->dn).c_str());
    completeRdn(message);
    completeCategory(message, domainDn);
    completeGuid(message);
    completeSid(message);
    checkState(message);
    spellDns(ldb, message);
}

std::string whyNotAdded(ldb_context* ldb, int code, const ldb_message* message) {
    const std::string dn = ldb_dn_get_linearized(message->dn);
    if (code == LDB_ERR_ENTRY_ALREADY_EXISTS)
        return dn + ": there is an entry with this DN or objectGUID already";
    return dn + ": " + errorText(ldb, code);
}

// How many values the text gives. LDB ends a record silently at a line that it
// does not understand, so what it read is compared with this.
std::size_t countValues(const std::string& text) {
    std::istringstream lines(text);
    std::size_t count = 0;
    for (std::string line; std::getline(lines, line);) {
        if (line[0] == ' ') continue;
        const std::size_t colon = line.find(':');
        if (colon == std::string::npos || colon == 0) throw DatabaseError("malformed LDIF");
        ++count;
    }
    return count;
}

void checkWhole(const Chunk& chunk, const ldb_message* message) {
    std::size_t read = 1;  // the dn
    for (unsigned i = 0; i < message->num_elements; ++i) read += message->elements[i].num_values;
    if (countValues(chunk.text) != read) throw DatabaseError("malformed LDIF");
}

// Names the values that are to be text and are not.
void checkTexts(const ldb_message* message, const std::function<void(const std::string&)>& complain) {
    for (unsigned i = 0; i < message->num_elements; ++i) {
        const ldb_message_element& element = message->elements[i];
        if (isBinaryAttribute(element.name)) continue;
        for (unsigned k = 0; k < element.num_values; ++k)
            if (!vorn::isUtf8(bytesOf(element.values[k])))
                complain(ldb_dn_get_linearized(message->dn) + std::string(": ") + element.name +
                         ": a value is not UTF-8, and is not shown");
    }
}

void addRecord(ldb_context* ldb, const Chunk& chunk, const std::function<void(ldb_message*)>& complete) {
    const char* text = chunk.text.c_str();
    ldb_ldif* record = ldb_ldif_read_string(ldb, &text);
    if (record == nullptr) throw DatabaseError("malformed LDIF");
    const Talloc<ldb_ldif> owner(record);
    if (record->changetype != LDB_CHANGETYPE_NONE && record->changetype != LDB_CHANGETYPE_ADD)
        throw DatabaseError("only entries can be loaded, not changes");
    if (record->changetype == LDB_CHANGETYPE_NONE) checkWhole(chunk, record->msg);
    complete(record->msg);
    const int code = ldb_add(ldb, record->msg);
    if (code != LDB_SUCCESS) throw DatabaseError(whyNotAdded(ldb, code, record->msg));
}

void check(ldb_context* ldb, int code) {
    if (code != LDB_SUCCESS) throw DatabaseError(errorText(ldb, code));
}

void inTransaction(ldb_context* ldb, const std::function<void()>& work) {
    check(ldb, ldb_transaction_start(ldb));
    try {
        work();
    } catch (...) {
        ldb_transaction_cancel(ldb);
        throw;
    }
    check(ldb, ldb_transaction_commit(ldb));
}

void addSchema(ldb_context* ldb) {
    const std::string ldif = schemaLdif();
    const char* rest = ldif.c_str();
    while (ldb_ldif* record = ldb_ldif_read_string(ldb, &rest)) {
        const Talloc<ldb_ldif> owner(record);
        check(ldb, ldb_add(ldb, record->msg));
    }
}

void addEntries(ldb_context* ldb, const std::string& ldifPath, const std::string& domainDn,
                std::vector<std::string>& complaints) {
    std::ifstream file(ldifPath);
    if (!file) throw DatabaseError(ldifPath + ": " + std::strerror(errno));
    Chunks chunks(file);
    Chunk chunk;
    while (chunks.next(chunk)) {
        const std::string place = ldifPath + ":" + std::to_string(chunk.line) + ": ";
        try {
            addRecord(ldb, chunk, [&](ldb_message* message) {
                completeEntry(ldb, message, domainDn);
                checkTexts(message, [&](const std::string& text) { complaints.push_back(place + text); });
            });
        } catch (const DatabaseError& error) {
            throw DatabaseError(place + error.what());
        }
    }
    if (file.bad()) throw DatabaseError(ldifPath + ": cannot be read");
}

// The file being built, removed unless it was moved to its place.
class Unfinished {
  public:
    explicit Unfinished(const std::string& path) : m_path(path + ".new") { remove(); }
    ~Unfinished() { remove(); }

    const std::string& path() const { return m_path; }

    void moveTo(const std::string& path) {
        const int file = ::open(m_path.c_str(), O_RDONLY | O_CLOEXEC);
        if (file < 0 || ::fchmod(file, S_IRUSR | S_IWUSR) != 0 || ::fsync(file) != 0)
            throw DatabaseError(m_path + ": " + std::strerror(errno));
        ::close(file);
        if (::link(m_path.c_str(), path.c_str()) != 0)
            throw DatabaseError(path + ": " + std::strerror(errno));
    }

  private:
    void remove() {
        ::unlink(m_path.c_str());
        ::unlink((m_path + "-lock").c_str());
    }

    const std::string m_path;
};

}  // namespace

void buildDatabase(const std::string& path, const std::string& ldifPath, const std::string& domainDn,
                   std::vector<std::string>& complaints) {
    Unfinished file(path);
    {
        const LdbContext ldb = openLdb(file.path(), Access::Create);
        inTransaction(ldb.get(), [&] { addSchema(ldb.get()); });
        inTransaction(ldb.get(), [&] { addEntries(ldb.get(), ldifPath, domainDn, complaints); });
    }
    file.moveTo(path);
}

bool showsHashes(const std::string& ldifPath) {
    struct stat status {};
    if (::stat(ldifPath.c_str(), &status) != 0 || !S_ISREG(status.st_mode) || (status.st_mode & 077) == 0)
        return false;
    std::ifstream file(ldifPath);
    for (std::string line; std::getline(file, line);)
        if (vorn::startsWithIgnoreCase(line, "userPassword:")) return true;
    return false;
}

}  // namespace vexagent
