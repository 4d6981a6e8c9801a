// SPDX-License-Identifier: Apache-2.0
// LDB's C interface, with an owner for what it allocates.
#pragma once

extern "C" {
#include <ldb.h>
#include <talloc.h>
}

#include <memory>
#include <string>
#include <string_view>

namespace vexagent {

// Two types that share their names with functions.
using ParseTree = struct ldb_parse_tree;
using Request = struct ldb_request;

struct TallocFree {
    void operator()(void* memory) const { talloc_free(memory); }
};

// Owns one talloc chunk and everything that hangs on it.
template <typename T>
using Talloc = std::unique_ptr<T, TallocFree>;

using Pool = Talloc<void>;

// A context that is not connected to a database. The first one of a process loads
// LDB's modules and registers kinds of event loops, which LDB and tevent do without a
// lock: contexts of several threads are made one after the other.
Talloc<ldb_context> newLdb();

// A fresh pool. Never hangs on another, so any thread may make and free one.
inline Pool newPool() {
    Pool pool(talloc_new(nullptr));
    if (!pool) throw std::bad_alloc();
    return pool;
}

inline std::string_view bytesOf(const ldb_val& value) {
    return {reinterpret_cast<const char*>(value.data), value.length};
}

// A copy of the bytes in a pool, followed by a NUL as LDB expects.
inline ldb_val newValue(void* pool, std::string_view bytes) {
    auto* data = static_cast<std::uint8_t*>(talloc_size(pool, bytes.size() + 1));
    if (data == nullptr) throw std::bad_alloc();
    bytes.copy(reinterpret_cast<char*>(data), bytes.size());
    data[bytes.size()] = 0;
    return {data, bytes.size()};
}

// A DN in one spelling, without blanks around separators. LDB keeps the text that a
// DN was given as, but indexes values as text. The DN is valid.
inline std::string spelledDn(ldb_dn* dn) {
    const Pool pool = newPool();
    std::string text;
    for (int i = 0; i < ldb_dn_get_comp_num(dn); ++i) {
        const auto component = static_cast<unsigned>(i);
        const char* value = ldb_dn_escape_value(pool.get(), *ldb_dn_get_component_val(dn, component));
        if (value == nullptr) throw std::bad_alloc();
        if (i != 0) text += ",";
        text.append(ldb_dn_get_component_name(dn, component)).append("=").append(value);
    }
    return text;
}

// The attribute's first value; empty when there is none.
inline std::string_view firstValue(const ldb_message* message, const char* name) {
    const ldb_val* value = ldb_msg_find_ldb_val(message, name);
    return value == nullptr ? std::string_view() : bytesOf(*value);
}

}  // namespace vexagent
