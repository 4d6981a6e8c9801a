// SPDX-License-Identifier: Apache-2.0
// The results that the RFCs have: one for each request, always.
#pragma once

#include "search/paging.h"
#include "search/reply_policy.h"
#include "standard/asked_part.h"

#include "backend/base/slapd_fwd.h"

namespace standard {

class StandardReply final : public ReplyPolicy {
  public:
    // Both outlive it.
    StandardReply(Operation* op, SlapReply* rs);

    void rejected(const Rejection& why) override;
    void objectsFollow() override {}
    bool entry(Entry* entry, AttributeName* attributes) override;
    void limit(int result) override { m_result.result = result; }
    void abandoned() override {}
    bool failed(const Failure& failure) override;
    // A page is answered with the control in any case, so that its client can go on or
    // knows that there is no more (RFC 2696).
    bool pageEnds(OpenPage* page) override;
    void end() override;

    // The base does not exist; this one above it does (null: none).
    void noSuchBase(const Entry* matched);

    // Whether the result has been decided, before the objects' end.
    bool isDecided() const { return m_told || m_result.result != 0; }

  private:
    Operation* const m_op;
    SlapReply* const m_rs;
    PagedResults m_paging;
    AskedPart m_asked;
    Rejection m_result{0, nullptr};
    const Entry* m_matched = nullptr;
    bool m_told = false;  // the client has its result, or there is nobody to have it
};

}  // namespace standard
