// SPDX-License-Identifier: Apache-2.0
// A stand-in for the functions of slapd that the module calls, and operations to
// call its hooks with, for tests without a running slapd. Included last, as
// backend/base/slapd.h is.
//
//     standin::FakeConnection connection(7);
//     standin::FakeOperation operation(connection);
//     operation.bind("CN=ann,DC=x", "secret");
//     EXPECT_EQ(vex_back_bind(operation.op(), operation.reply()), 49);
//     EXPECT_EQ(connection.sent().at(0).text, "vexAuth : cannot bind ...");
//
// slap_debug, slap_cids and slap_known_controls are plain globals that tests set.
// The functions of liblutil and libldap are the real ones.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "vorn/secret.h"

#include "backend/base/slapd.h"

namespace standin {

// Forgets attributes, entries and answers, and sets slap_debug to 0.
void resetSlapd();

// slap_str2ad knows exactly these names, compared without regard to case.
AttributeDescription* knowAttribute(const std::string& name, bool binarySyntax = false);
AttributeDescription* knowAttributeWithFlags(const std::string& name, unsigned syntaxFlags);

// test_filter answers this; LDAP_COMPARE_TRUE after resetSlapd.
void filterAnswers(int code);
// test_filter does this from now on, until resetSlapd.
void testFiltersWith(std::function<int(Entry*, const Filter*)> test);
// str2entry refuses texts that hold this; besides, those without a "dn:" line.
void rejectEntriesWith(const std::string& part);
// How many texts str2entry was given since resetSlapd.
int parsedTexts();
// How many entries str2entry has made that entry_free has not freed.
int liveEntries();
// backend_add answers this, when it is not 0, after it has taken the record.
void registrationAnswers(int code);
// The record that backend_add was given last, or null.
BackendInfo* registeredBackend();

// An entry as text, one "name: value" a line, values as they are.
std::string entryText(const Entry* entry);

// With the library slapd_directory, which has what slapd does with entries and names: what a
// filter is for an entry, three-valued, comparing text; and the attributes that no client may
// search or disclose.
int evaluate(Entry* entry, const Filter* filter);
void hideFromSearch(std::vector<std::string> attributes);

struct SentControl {
    std::string oid;
    std::string value;
    bool critical;
};

// What a client was sent, as it was at the moment of sending.
struct Sent {
    bool isEntry;                         // an entry, else a result
    int code;                             // sr_err
    std::string text;                     // sr_text, or the entry
    bool hasText;                         // sr_text was not null
    std::vector<std::string> attributes;  // of an entry: the names that sr_attrs asks for; none: all
    std::vector<SentControl> controls;
    slap_mask_t flags;
    int entries;  // sr_nentries
};

// One client connection. Safe for several operations at once.
class FakeConnection {
  public:
    explicit FakeConnection(unsigned long id = 1);
    FakeConnection(const FakeConnection&) = delete;
    FakeConnection& operator=(const FakeConnection&) = delete;

    Connection* connection() { return &m_record.connection; }
    std::vector<Sent> sent();
    // What sending an entry answers, from now on; 0 at first.
    void entriesAnswer(int code) { m_entryCode = code; }
    // From now on entries are taken away on their way to the client, as an overlay may:
    // sending one succeeds, and it is neither sent nor counted.
    void loseEntries() { m_losesEntries = true; }
    // Runs whenever something has been sent, on the sending thread.
    void onSend(std::function<void()> action) { m_onSend = std::move(action); }

  private:
    struct Record {
        Connection connection;
        FakeConnection* owner;
    };
    static FakeConnection& of(Operation* op);
    static void sendResult(Operation* op, SlapReply* rs);
    static int sendEntry(Operation* op, SlapReply* rs);
    void keep(SlapReply* rs, bool isEntry);

    Record m_record{};
    int m_entryCode = 0;
    bool m_losesEntries = false;
    std::function<void()> m_onSend;
    std::mutex m_mutex;
    std::vector<Sent> m_sent;  // guarded by m_mutex
};

// One request: records of slapd, all zero but what is set here. The texts given
// are copied, and wiped at the end.
class FakeOperation {
  public:
    explicit FakeOperation(FakeConnection& connection);
    FakeOperation(const FakeOperation&) = delete;
    FakeOperation& operator=(const FakeOperation&) = delete;

    Operation* op() { return &m_operation; }
    SlapReply* reply() { return &m_reply; }

    // A simple bind. A null DN is an absent one.
    void bind(const char* dn, const char* password);
    // The same with texts that may hold a NUL.
    void bind(const std::string& dn, const std::string& password);
    // An extended operation of somebody, with its data.
    void extended(const std::string& who, const char* oid, const std::string& data);
    // The request's DN, both forms.
    void dn(const char* dn, const char* normalized);
    void dn(const std::string& dn, const std::string& normalized);
    // The database's suffix, both forms; several calls add several.
    void suffix(const std::string& dn);

  private:
    berval keep(const char* text);
    berval keep(const std::string& text);

    Opheader m_header{};
    Operation m_operation{};
    SlapReply m_reply{};
    BackendInfo m_info{};
    BackendDB m_database{};
    std::deque<vorn::Secret> m_texts;
    std::vector<berval> m_suffixes;
    berval m_data{};
};

}  // namespace standin
