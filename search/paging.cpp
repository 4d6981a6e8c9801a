// SPDX-License-Identifier: Apache-2.0
#include "search/paging.h"

#include <cstring>
#include <utility>

#include "backend/base/log.h"
#include "vex/vex.h"

#include "backend/base/slapd.h"

namespace {

constexpr Rejection kInvalid{LDAP_PROTOCOL_ERROR, "paged results cookie is invalid"};
constexpr Rejection kOld{LDAP_UNWILLING_TO_PERFORM, "paged results cookie is invalid or old"};

// A BER encoder whose buffer goes with it.
class BerEncoder {
  public:
    BerEncoder() { vex_ber_init2(ber(), nullptr, LBER_USE_DER); }
    ~BerEncoder() { vex_ber_free_buf(ber()); }
    BerEncoder(const BerEncoder&) = delete;
    BerEncoder& operator=(const BerEncoder&) = delete;

    BerElement* ber() { return reinterpret_cast<BerElement*>(&m_buffer); }

  private:
    BerElementBuffer m_buffer{};
};

// A control in one block of the operation's own memory, as slapd frees it.
LDAPControl* makeControl(Operation* op, const struct berval& value) {
    static char oid[] = LDAP_CONTROL_PAGEDRESULTS;
    void* block = op->o_tmpalloc(sizeof(LDAPControl) + value.bv_len, op->o_tmpmemctx);
    auto* control = static_cast<LDAPControl*>(block);
    control->ldctl_oid = oid;
    control->ldctl_iscritical = 0;
    control->ldctl_value.bv_len = value.bv_len;
    control->ldctl_value.bv_val = reinterpret_cast<char*>(control + 1);
    std::memcpy(control->ldctl_value.bv_val, value.bv_val, value.bv_len);
    return control;
}

}  // namespace

PagedResults::PagedResults(Operation* op, Cookies cookies)
    : m_op(op),
      m_cookies(cookies),
      m_state(get_pagedresults(op) > SLAP_CONTROL_IGNORED
                  ? static_cast<PagedResultsState*>(op->o_pagedresults_state)
                  : nullptr) {}

int PagedResults::pageSize() const {
    return m_state->ps_size;
}

int PagedResults::earlier() const {
    return requested() ? m_state->ps_count : 0;
}

std::optional<Rejection> PagedResults::resume(OpenPage* page) {
    JPrintf("vex search: already received entries count:%d, pagesize:%d, size limit:%d", earlier(),
            pageSize(), m_op->ors_slimit);
    if (pageSize() == 0) return Rejection{LDAP_SUCCESS, "search abandoned by pagedResult size=0"};

    const struct berval& sent = m_state->ps_cookieval;
    if (sent.bv_len == 0) {
        m_op->o_conn->c_pagedresults_state.ps_cookie = 0;
        return std::nullopt;
    }
    Cookie cookie{};
    if (sent.bv_len != sizeof cookie) return kInvalid;
    std::memcpy(&cookie, sent.bv_val, sizeof cookie);
    if (m_cookies == Cookies::Last) {
        if (const auto rejection = compareWithLast(cookie.received)) return rejection;
    }
    if (cookie.name.first == 0 || cookie.name.second == 0) return kInvalid;
    auto claimed = back_vex_search_handle->claim(m_op->o_connid, cookie.received, cookie.name);
    if (!claimed) return m_cookies == Cookies::Last ? kInvalid : kOld;
    *page = std::move(*claimed);
    return std::nullopt;
}

std::optional<Rejection> PagedResults::compareWithLast(std::uint64_t received) const {
    if (received > m_state->ps_cookie) return kInvalid;
    if (received < m_state->ps_cookie) return kOld;
    return std::nullopt;
}

bool PagedResults::answerOpen(SlapReply* rs, OpenPage* page) {
    const int received = earlier() + rs->sr_nentries;
    const std::optional<PageName> name = PageName::draw();
    Cookie cookie{static_cast<std::uint64_t>(received), name.value_or(PageName{})};
    struct berval value = {sizeof cookie, reinterpret_cast<char*>(&cookie)};
    remember(cookie.received, received);
    if (!name || !attach(rs, &value)) return false;
    page->received = cookie.received;
    page->name = cookie.name;
    // Before the client has the cookie: its next request may come at once.
    const SharedHandle handle = page->handle;
    back_vex_search_handle->issue(m_op->o_connid, peerOf(*m_op), std::move(*page));
    back_vex_search_handle->setSearchHandle(m_op->o_connid, handle);
    return true;
}

bool PagedResults::answerLast(SlapReply* rs) {
    char none[] = "";
    struct berval empty = {0, none};
    remember(0, earlier() + rs->sr_nentries);
    return attach(rs, &empty);
}

// The value is the sequence of a size estimate, which is always 0, and the cookie.
bool PagedResults::attach(SlapReply* rs, struct berval* cookie) {
    BerEncoder encoder;
    struct berval value = {0, nullptr};
    if (vex_ber_printf(encoder.ber(), "{iO}", 0, cookie) == -1) return false;
    if (vex_ber_flatten2(encoder.ber(), &value, 0) == -1) return false;
    LDAPControl* controls[] = {makeControl(m_op, value), nullptr};
    slap_add_ctrls(m_op, rs, controls);
    return true;
}

void PagedResults::remember(unsigned long cookie, int received) {
    PagedResultsState& state = m_op->o_conn->c_pagedresults_state;
    state.ps_cookie = cookie;
    state.ps_count = received;
}
