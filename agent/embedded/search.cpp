// SPDX-License-Identifier: Apache-2.0
#include "agent/embedded/search.h"

#include "agent/directory/identifiers.h"
#include "agent/embedded/folding.h"
#include "agent/embedded/kinds.h"
#include "vex/wire.h"

namespace vexagent {
namespace {

// Subordinate scope, which LDB does not know: the subtree without its base.
constexpr int kSubordinate = 3;

ldb_scope ldbScope(int scope) {
    if (scope == 0) return LDB_SCOPE_BASE;
    return scope == 1 ? LDB_SCOPE_ONELEVEL : LDB_SCOPE_SUBTREE;
}

// The GUIDs that a search found and has not yet shown, 16 bytes each.
class Guids {
  public:
    void add(std::string_view guid) { m_bytes.append(guid); }
    bool empty() const { return m_at == m_bytes.size(); }
    std::string_view take() {
        const std::string_view guid = std::string_view(m_bytes).substr(m_at, kGuidBytes);
        m_at += kGuidBytes;
        return guid;
    }
    std::size_t size() const { return (m_bytes.size() - m_at) / kGuidBytes; }

  private:
    std::string m_bytes;
    std::size_t m_at = 0;
};

class GuidCursor : public Cursor {
  public:
    GuidCursor(const Source& source, Guids guids, View view, std::uint64_t total)
        : m_source(source), m_guids(std::move(guids)), m_view(std::move(view)), m_total(total) {}

    Result next(Batch& batch) override try {
        Database::Lease handle = m_source.database.lease();
        batch.total = m_total;
        std::size_t bytes = 0;
        while (!m_guids.empty() && batch.objects.size() < vex::wire::kBatchObjects &&
               bytes < vex::wire::kBatchBytes) {
            const Pool pool = newPool();
            const ldb_message* message = handle->readByGuid(pool.get(), m_guids.take());
            if (message == nullptr) continue;
            batch.objects.push_back(makeObject(*handle, m_source, message, m_view));
            bytes += objectBytes(batch.objects.back());
        }
        return {};
    } catch (const ReadError& error) {
        return readFailure(error);
    }

    bool atEnd() const override { return m_guids.empty(); }

  private:
    const Source m_source;
    Guids m_guids;
    const View m_view;
    const std::uint64_t m_total;
};

// What a search collects while LDB walks.
class Collector {
  public:
    Collector(ldb_context* ldb, const Plan& plan, const Query& query)
        : m_ldb(ldb), m_plan(plan), m_query(query), m_pool(newPool()) {}

    void add(ldb_message* message) {
        if (m_query.typed && !isUnixKind(message)) return;
        if (m_query.scope == kSubordinate && ldb_dn_compare(message->dn, m_plan.base) == 0) return;
        const std::string_view guid = firstValue(message, "objectGUID");
        if (guid.size() != kGuidBytes) return;
        if (m_plan.match != nullptr && !matchesFolded(m_ldb, message, m_plan.match)) return;
        ++m_total;
        if (m_messages.size() < firstBatch() && m_bytes < vex::wire::kBatchBytes) {
            m_messages.push_back(talloc_steal(m_pool.get(), message));
            m_bytes += talloc_total_size(message);
        } else {
            m_guids.add(guid);
        }
    }

    std::uint64_t total() const { return m_total; }
    const std::vector<ldb_message*>& messages() const { return m_messages; }
    Guids takeGuids() { return std::move(m_guids); }

  private:
    std::size_t firstBatch() const {
        return m_query.firstBatch == 0 ? vex::wire::kBatchObjects
                                       : std::min(m_query.firstBatch, vex::wire::kBatchObjects);
    }

    ldb_context* const m_ldb;
    const Plan& m_plan;
    const Query& m_query;
    const Pool m_pool;
    std::vector<ldb_message*> m_messages;  // in m_pool
    std::size_t m_bytes = 0;
    Guids m_guids;
    std::uint64_t m_total = 0;
};

}  // namespace

ParseTree* matchAll(void* pool) {
    auto* tree = talloc_zero(pool, ParseTree);
    if (tree == nullptr) throw std::bad_alloc();
    tree->operation = LDB_OP_PRESENT;
    tree->u.present.attr = "objectGUID";
    return tree;
}

Result readFailure(const ReadError& error) {
    return Result::ldap(VEX_DIRECTORY_ERROR, error.code(), "the directory cannot be read")
        .because(error.what());
}

Result runSearch(const Source& source, Database::Lease& handle, const Plan& plan, const Query& query,
                 const Outcome& outcome) {
    Collector found(handle->ldb(), plan, query);
    handle->search(plan.base, ldbScope(query.scope), plan.tree, nullptr, [&](ldb_message* message) {
        found.add(message);
        return true;
    });
    outcome.first.total = found.total();
    for (const ldb_message* message : found.messages())
        outcome.first.objects.push_back(makeObject(*handle, source, message, query.view));
    Guids guids = found.takeGuids();
    if (!guids.empty())
        outcome.rest = std::make_unique<GuidCursor>(source, std::move(guids), query.view, found.total());
    return {};
}

}  // namespace vexagent
