// SPDX-License-Identifier: Apache-2.0
// The simple paged results control (RFC 2696), answered by the module itself.
//
// The cookie is 24 bytes: three unsigned 64-bit numbers in the host's byte order,
// namely how many entries the client has received, and two random ones, drawn for
// this cookie. It is a claim: the numbers name what the registry of open searches
// holds for this connection.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "search/handles.h"
#include "search/page_name.h"
#include "search/request.h"

#include "backend/base/slapd_fwd.h"

// The control of one request.
class PagedResults {
  public:
    // Which cookies a connection may use: the last one that it was given, or each that it
    // was given, since it may read several searches by turns.
    enum class Cookies { Last, Each };

    explicit PagedResults(Operation* op, Cookies cookies = Cookies::Last);

    // Whether the request carries the control, and slapd did not mark it ignored.
    bool requested() const { return m_state != nullptr; }

    int pageSize() const;
    // Entries that the client has received in earlier pages; 0 without the control.
    int earlier() const;

    // Checks page size and cookie. Takes the open search that the cookie names
    // out of the registry; without a cookie *page stays empty and a new search
    // begins.
    std::optional<Rejection> resume(OpenPage* page);

    // Attaches the control for a page after which entries are left: the page
    // becomes the registry's, and the client gets the cookie that claims it. False
    // when the control cannot be made; *page is then as it was.
    bool answerOpen(SlapReply* rs, OpenPage* page);

    // Attaches the control for the last page: an empty cookie. False when the
    // control cannot be made.
    bool answerLast(SlapReply* rs);

  private:
    struct Cookie {
        std::uint64_t received;
        PageName name;
    };

    std::optional<Rejection> compareWithLast(std::uint64_t received) const;
    bool attach(SlapReply* rs, struct berval* cookie);
    void remember(unsigned long cookie, int received);

    Operation* const m_op;
    const Cookies m_cookies;
    PagedResultsState* const m_state;  // null without the control
};
