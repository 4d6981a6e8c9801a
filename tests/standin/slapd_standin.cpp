// SPDX-License-Identifier: Apache-2.0
#include <strings.h>

#include "tests/standin/inside.h"
#include "vorn/lock.h"

#include "tests/standin/slapd_standin.h"

namespace standin {

FakeConnection::FakeConnection(unsigned long id) {
    m_record.owner = this;
    m_record.connection.c_connid = id;
    m_record.connection.c_send_ldap_result = sendResult;
    m_record.connection.c_send_search_entry = sendEntry;
}

FakeConnection& FakeConnection::of(Operation* op) {
    return *reinterpret_cast<Record*>(op->o_conn)->owner;  // the connection is the record's first member
}

void FakeConnection::keep(SlapReply* rs, bool isEntry) {
    vorn_assert_no_lock_held();  // a client may be slow to take what it is sent
    Sent sent{isEntry, rs->sr_err, "", rs->sr_text != nullptr, {}, {}, rs->sr_flags, rs->sr_nentries};
    if (isEntry)
        sent.text = entryText(rs->sr_entry);
    else if (rs->sr_text)
        sent.text = rs->sr_text;
    if (isEntry && rs->sr_attrs)
        for (AttributeName* name = rs->sr_attrs; name->an_name.bv_val; ++name)
            sent.attributes.emplace_back(name->an_name.bv_val, name->an_name.bv_len);
    for (LDAPControl** control = rs->sr_ctrls; control && *control; ++control)
        sent.controls.push_back({(*control)->ldctl_oid,
                                 std::string((*control)->ldctl_value.bv_val, (*control)->ldctl_value.bv_len),
                                 (*control)->ldctl_iscritical != 0});
    {
        std::lock_guard guard(m_mutex);
        m_sent.push_back(std::move(sent));
    }
    if (m_onSend) m_onSend();
}

void FakeConnection::sendResult(Operation* op, SlapReply* rs) {
    const Inside inside;
    of(op).keep(rs, false);
    if (rs->sr_flags & REP_CTRLS_MUSTBEFREED) {  // as slapd: a second result carries no controls
        op->o_tmpfree(rs->sr_ctrls, op->o_tmpmemctx);
        rs->sr_ctrls = nullptr;
        rs->sr_flags &= ~REP_CTRLS_MUSTBEFREED;
    }
}

int FakeConnection::sendEntry(Operation* op, SlapReply* rs) {
    const Inside inside;
    FakeConnection& self = of(op);
    if (self.m_entryCode != 0) return self.m_entryCode;
    if (self.m_losesEntries) return 0;
    self.keep(rs, true);
    rs->sr_nentries++;
    if (rs->sr_flags & REP_ENTRY_MUSTBEFREED) {
        entry_free(rs->sr_entry);
        rs->sr_entry = nullptr;
        rs->sr_flags &= ~REP_ENTRY_MUSTBEFREED;
    }
    return 0;
}

std::vector<Sent> FakeConnection::sent() {
    std::lock_guard guard(m_mutex);
    return m_sent;
}

namespace {

void* plainMalloc(ber_len_t size, void*) {
    return std::malloc(size);
}
void* plainCalloc(ber_len_t count, ber_len_t size, void*) {
    return std::calloc(count, size);
}
void* plainRealloc(void* memory, ber_len_t size, void*) {
    return std::realloc(memory, size);
}
void plainFree(void* memory, void*) {
    std::free(memory);
}
BerMemoryFunctions plainMemory = {plainMalloc, plainCalloc, plainRealloc, plainFree};

}  // namespace

FakeOperation::FakeOperation(FakeConnection& connection) {
    m_header.oh_conn = connection.connection();
    m_header.oh_connid = connection.connection()->c_connid;
    m_header.oh_protocol = LDAP_VERSION3;
    m_header.oh_tmpmfuncs = &plainMemory;
    m_operation.o_hdr = &m_header;
    m_operation.o_bd = &m_database;
    m_database.bd_info = &m_info;
    m_database.bd_self = &m_database;
}

berval FakeOperation::keep(const char* text) {
    return text ? keep(std::string(text)) : berval{0, nullptr};
}

berval FakeOperation::keep(const std::string& text) {
    vorn::Secret& kept = m_texts.emplace_back(std::string_view(text));
    return {kept.size(), kept.data()};
}

void FakeOperation::bind(const char* name, const char* password) {
    m_operation.o_tag = LDAP_REQ_BIND;
    dn(name, name);
    m_operation.orb_method = LDAP_AUTH_SIMPLE;
    m_operation.orb_cred = keep(password);
}

void FakeOperation::bind(const std::string& name, const std::string& password) {
    bind("", "");
    dn(name, name);
    m_operation.orb_cred = keep(password);
}

void FakeOperation::extended(const std::string& who, const char* oid, const std::string& data) {
    m_operation.o_tag = LDAP_REQ_EXTENDED;
    m_operation.o_dn = keep(who);
    m_operation.o_ndn = keep(who);
    m_operation.ore_reqoid = keep(oid);
    m_data = keep(data);
    m_operation.ore_reqdata = &m_data;
}

void FakeOperation::dn(const std::string& name, const std::string& normalized) {
    m_operation.o_req_dn = keep(name);
    m_operation.o_req_ndn = keep(normalized);
}

void FakeOperation::dn(const char* name, const char* normalized) {
    m_operation.o_req_dn = keep(name);
    m_operation.o_req_ndn = keep(normalized);
}

void FakeOperation::suffix(const std::string& name) {
    if (!m_suffixes.empty()) m_suffixes.pop_back();
    m_suffixes.push_back(keep(name.c_str()));
    m_suffixes.push_back({0, nullptr});
    m_database.be_suffix = m_suffixes.data();
    m_database.be_nsuffix = m_suffixes.data();
}

}  // namespace standin
