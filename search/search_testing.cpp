// SPDX-License-Identifier: Apache-2.0
#include "search/search_testing.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "search/search.h"
#include "vorn/strings.h"

#include "tests/standin/inside.h"
#include "tests/standin/slapd_standin.h"

namespace searchtest {

namespace {

struct berval bv(std::string& text) {
    return {text.size(), text.data()};
}

// An operation's own memory: as in slapd, what is left of it goes with the operation. It
// is not empty at first, and what is written behind a block is found.
class Slab {
  public:
    ~Slab() {
        for (const Block& block : m_blocks) release(block);
    }
    static void* allocate(ber_len_t size, void* slab) {
        const standin::Inside inside;  // slapd's memory does not run out
        auto& self = *static_cast<Slab*>(slab);
        ++self.m_allocations;
        const Block block{std::malloc(size + kGuard), size};
        std::memset(block.start, kFill, size + kGuard);
        self.m_blocks.push_back(block);
        return block.start;
    }
    static void release(void* start, void* slab) {
        auto& blocks = static_cast<Slab*>(slab)->m_blocks;
        const auto found = std::find_if(blocks.begin(), blocks.end(),
                                        [&](const Block& block) { return block.start == start; });
        release(*found);
        blocks.erase(found);
    }
    int allocations() const { return m_allocations; }

  private:
    static constexpr std::size_t kGuard = 64;
    static constexpr unsigned char kFill = 0xA5;
    struct Block {
        void* start;
        std::size_t size;
    };

    static void release(const Block& block) {
        const auto* guard = static_cast<const unsigned char*>(block.start) + block.size;
        EXPECT_TRUE(std::all_of(guard, guard + kGuard, [](unsigned char byte) { return byte == kFill; }))
            << "something was written behind its block";
        std::free(block.start);
    }

    int m_allocations = 0;
    std::vector<Block> m_blocks;
};

}  // namespace

void (*onHook)(bool) = nullptr;

TestFilter::TestFilter(const std::string& attribute, const char* value)
    : m_name(attribute), m_value(value == nullptr ? "" : value) {
    m_description.ad_cname = bv(m_name);
    if (value == nullptr) {
        m_filter.f_choice = LDAP_FILTER_PRESENT;
        m_filter.f_desc = &m_description;
        return;
    }
    m_filter.f_choice = attribute.starts_with('~') ? LDAP_FILTER_APPROX : LDAP_FILTER_EQUALITY;
    m_assertion.aa_desc = &m_description;
    m_assertion.aa_value = bv(m_value);
    m_filter.f_ava = &m_assertion;
}

std::vector<standin::Sent> Client::search(const Request& request, int* answer) {
    standin::FakeOperation operation(m_connection);
    operation.suffix("dc=example,dc=com");
    operation.dn(request.base, vorn::lower(request.base));

    Operation* op = operation.op();
    op->o_tag = LDAP_REQ_SEARCH;
    op->o_time = request.start != 0 ? request.start : std::time(nullptr);
    op->ors_scope = request.scope;
    op->ors_slimit = request.sizeLimit;
    op->ors_tlimit = request.timeLimit;
    TestFilter filter(request.attribute, request.value);
    op->ors_filter = filter.filter();
    op->o_abandon = request.abandoned ? 1 : 0;

    std::vector<std::string> texts = request.attributes;
    std::vector<AttributeName> names(texts.size() + 1);
    for (std::size_t i = 0; i < texts.size(); ++i) names[i].an_name = bv(texts[i]);
    op->ors_attrs = texts.empty() ? nullptr : names.data();

    PagedResultsState state = m_connection.connection()->c_pagedresults_state;
    std::string cookie;
    slap_cids.sc_pagedResults = 3;
    void* controls[SLAP_MAX_CIDS] = {};
    op->o_controls = controls;
    if (request.paged != nullptr) {
        cookie = request.paged->cookie;
        state.ps_size = request.paged->size;
        state.ps_cookieval = bv(cookie);
        if (cookie.empty()) state.ps_count = 0, state.ps_cookie = 0;
        op->o_pagedresults = static_cast<char>(request.paged->control);
        op->o_pagedresults_state = &state;
    }
    static BerMemoryFunctions memory = {Slab::allocate, nullptr, nullptr, Slab::release};
    Slab slab;
    op->o_tmpmfuncs = &memory;
    op->o_tmpmemctx = &slab;

    *operation.reply() = request.before;
    if (onHook != nullptr) onHook(true);
    const int result = vex_back_search(op, operation.reply());
    if (onHook != nullptr) onHook(false);
    m_allocations = slab.allocations();
    m_reply = *operation.reply();
    if (answer != nullptr) *answer = result;
    std::vector<standin::Sent> all = m_connection.sent();
    std::vector<standin::Sent> fresh(all.begin() + static_cast<std::ptrdiff_t>(m_seen), all.end());
    m_seen = all.size();
    return fresh;
}

std::string cookieOf(const standin::Sent& sent) {
    if (sent.controls.empty()) return "";
    std::string value = sent.controls[0].value;
    struct berval bytes = bv(value);
    BerElementBuffer buffer{};
    auto* ber = reinterpret_cast<BerElement*>(&buffer);
    ber_init2(ber, &bytes, LBER_USE_DER);
    ber_int_t estimate = -1;
    struct berval cookie = {0, nullptr};
    if (ber_scanf(ber, "{im}", &estimate, &cookie) == LBER_ERROR || estimate != 0) return "malformed";
    return {cookie.bv_val, cookie.bv_len};
}

standin::Object person(const std::string& name) {
    return {{"_dn", {"CN=" + name + ",DC=example,DC=com"}},
            {"_GUID", {"guid-" + name}},
            {"_objectCategory", {"Person"}},
            {"sAMAccountName", {name}},
            {"objectClass", {"user"}}};
}

}  // namespace searchtest
