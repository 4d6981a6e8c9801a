// SPDX-License-Identifier: Apache-2.0
#include "agent/embedded/password_store.h"

#include <ldap.h>

#include <algorithm>

#include "agent/embedded/database.h"

namespace vexagent {
namespace {

constexpr char kTimeAttribute[] = "pwdLastSet";

// Active Directory counts units of 100 ns from the beginning of the year 1601.
std::string fileTime(std::time_t time) {
    constexpr long long kFrom1601To1970 = 11'644'473'600;
    constexpr long long kUnitsASecond = 10'000'000;
    return std::to_string((static_cast<long long>(time) + kFrom1601To1970) * kUnitsASecond);
}

bool sameValues(const ldb_message_element* a, const ldb_message_element* b) {
    if (a == nullptr || b == nullptr) return a == b;
    return std::equal(
        a->values, a->values + a->num_values, b->values, b->values + b->num_values,
        [](const ldb_val& one, const ldb_val& other) { return bytesOf(one) == bytesOf(other); });
}

// A transaction that is undone unless it is committed.
class Transaction {
  public:
    explicit Transaction(ldb_context* ldb) : m_ldb(ldb), m_open(ldb_transaction_start(ldb) == LDB_SUCCESS) {}
    ~Transaction() {
        if (m_open) ldb_transaction_cancel(m_ldb);
    }
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    bool isOpen() const { return m_open; }
    int commit() {
        m_open = false;
        return ldb_transaction_commit(m_ldb);
    }

  private:
    ldb_context* const m_ldb;
    bool m_open;
};

void addReplacement(ldb_message* change, const char* name, const std::string& bytes) {
    const ldb_val value = newValue(change, bytes);
    ldb_message_element* element = nullptr;
    if (ldb_msg_add_value(change, name, &value, &element) != LDB_SUCCESS) throw std::bad_alloc();
    element->flags = LDB_FLAG_MOD_REPLACE;
}

Result failed(const std::string& why) {
    return Result::ldap(VEX_DIRECTORY_ERROR, LDAP_OTHER, "the password cannot be written").because(why);
}

}  // namespace

Result storePassword(const std::string& database, const ldb_message* account, const std::string& hash,
                     std::time_t now) try {
    const Pool pool = newPool();
    Handle handle(openLdb(database, Access::Change));
    ldb_context* ldb = handle.ldb();
    Transaction transaction(ldb);
    if (!transaction.isOpen()) return failed(database + ": " + errorText(ldb, LDB_ERR_BUSY));
    ldb_dn* dn = ldb_dn_new(pool.get(), ldb, ldb_dn_get_linearized(account->dn));
    const ldb_message* present = handle.read(pool.get(), dn);
    if (present == nullptr || !sameValues(ldb_msg_find_element(present, kPasswordAttribute),
                                          ldb_msg_find_element(account, kPasswordAttribute)))
        return Result::ldap(VEX_DIRECTORY_ERROR, LDAP_BUSY, "the account was changed meanwhile");
    ldb_message* change = ldb_msg_new(pool.get());
    if (change == nullptr) throw std::bad_alloc();
    change->dn = dn;
    addReplacement(change, kPasswordAttribute, "{CRYPT}" + hash);
    addReplacement(change, kTimeAttribute, fileTime(now));
    int code = ldb_modify(ldb, change);
    if (code == LDB_SUCCESS) code = transaction.commit();
    return code == LDB_SUCCESS ? Result() : failed(database + ": " + errorText(ldb, code));
} catch (const DatabaseError& error) {
    return failed(error.what());
}

}  // namespace vexagent
