// SPDX-License-Identifier: Apache-2.0
// A small directory for the tests.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "agent/embedded/embedded.h"
#include "agent/embedded/ldif.h"
#include "vorn/temporary_folder_testing.h"

namespace vexagent {

using vorn::test::TemporaryFolder;

inline constexpr char kDomain[] = "example.com";
inline constexpr char kRoot[] = "DC=example,DC=com";

// One person's LDIF. Whoever needs more appends lines.
inline std::string person(const std::string& cn, const std::string& login, int number,
                          const std::string& more = "") {
    return "dn: CN=" + cn + ",OU=People," + kRoot +
           "\nobjectClass: top\nobjectClass: person\nobjectClass: organizationalPerson\nobjectClass: user\n"
           "sAMAccountName: " +
           login + "\nuidNumber: " + std::to_string(number) + "\ngidNumber: 100\nunixHomeDirectory: /home/" +
           login + "\nobjectSid: S-1-5-21-1-2-3-" + std::to_string(number) + "\n" + more + "\n";
}

// One group's LDIF; members are common names below OU=People or OU=Groups.
inline std::string group(const std::string& cn, int number, const std::vector<std::string>& members,
                         const std::string& more = "") {
    std::string text = "dn: CN=" + cn + ",OU=Groups," + kRoot +
                       "\nobjectClass: top\nobjectClass: group\nsAMAccountName: " + cn +
                       "\ngidNumber: " + std::to_string(number) + "\nobjectSid: S-1-5-21-1-2-3-" +
                       std::to_string(number) + "\n";
    for (const std::string& member : members) text += "member: " + member + "," + kRoot + "\n";
    return text + more + "\n";
}

inline std::string units() {
    std::string text;
    for (const char* name : {"People", "Groups"})
        text += std::string("dn: OU=") + name + "," + kRoot + "\nobjectClass: organizationalUnit\n\n";
    return text;
}

// Makes an open database's file one that cannot be read: its content is gone, its size
// is not.
inline void damage(const std::string& database) {
    constexpr std::streamoff kHead = 8192;  // two pages, which say where the rest is
    std::fstream file(database, std::ios::in | std::ios::out | std::ios::binary | std::ios::ate);
    const std::streamoff size = file.tellp();
    file.seekp(kHead);
    file << std::string(static_cast<std::size_t>(size - kHead), '\0');
    ASSERT_TRUE(file.flush());
}

// The clock of the tests.
inline std::time_t testNow = 1'700'000'000;
inline std::time_t testClock() {
    return testNow;
}

// A database made from LDIF in a folder of its own, and the directory on it.
class TestDirectory {
  public:
    explicit TestDirectory(const std::string& ldif, bool changesPasswords = false) {
        std::vector<std::string> complaints;
        buildDatabase(database(), m_folder.write("directory.ldif", ldif), kRoot, complaints);
        EmbeddedOptions options{database(), kDomain, {"sAMAccountName", "uid", "displayName"}, testClock};
        options.changesPasswords = changesPasswords;
        m_directory = std::make_unique<EmbeddedDirectory>(options);
    }

    EmbeddedDirectory* operator->() const { return m_directory.get(); }
    EmbeddedDirectory& operator*() const { return *m_directory; }
    std::string database() const { return m_folder.file("directory.ldb"); }
    const TemporaryFolder& folder() const { return m_folder; }

    // Applies an LDIF change, as another process would.
    bool change(const std::string& ldif) const {
        const LdbContext ldb = openLdb(database(), Access::Create);
        const char* text = ldif.c_str();
        const Talloc<ldb_ldif> record(ldb_ldif_read_string(ldb.get(), &text));
        if (!record || ldb_transaction_start(ldb.get()) != LDB_SUCCESS) return false;
        int code = LDB_ERR_OPERATIONS_ERROR;
        if (record->changetype == LDB_CHANGETYPE_MODIFY) code = ldb_modify(ldb.get(), record->msg);
        if (record->changetype == LDB_CHANGETYPE_DELETE) code = ldb_delete(ldb.get(), record->msg->dn);
        return code == LDB_SUCCESS && ldb_transaction_commit(ldb.get()) == LDB_SUCCESS;
    }

  private:
    TemporaryFolder m_folder;
    std::unique_ptr<EmbeddedDirectory> m_directory;
};

// The attribute's values; empty when the object does not carry it.
inline std::vector<std::string> values(const Object& object, const std::string& name) {
    for (const Attribute& attribute : object)
        if (attribute.name == name) return attribute.values;
    return {};
}

inline std::string value(const Object& object, const std::string& name) {
    const std::vector<std::string> all = values(object, name);
    return all.empty() ? std::string() : all.front();
}

}  // namespace vexagent
