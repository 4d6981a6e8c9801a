// SPDX-License-Identifier: Apache-2.0
// The exact replies: those that applications made for this gateway know by heart.
//
// Nothing found is "no such object". Several events send their result at once, and the
// end sends one for every request that has not stayed open, so that many requests get two:
// clients take the first. The two may differ.
#pragma once

#include "search/limits.h"
#include "search/paging.h"
#include "search/reply_policy.h"

#include "backend/base/slapd_fwd.h"

class ExactReply final : public ReplyPolicy {
  public:
    ExactReply(Operation* op, SlapReply* rs);

    void rejected(const Rejection& why) override;
    void objectsFollow() override { m_nothingFound = true; }
    bool entry(Entry* entry, AttributeName* attributes) override;
    void limit(int result) override;
    void abandoned() override {}
    bool failed(const Failure& failure) override;
    bool pageEnds(OpenPage* page) override;
    void end() override;

  private:
    bool attachControl(OpenPage* page, bool continues);

    Operation* const m_op;
    SlapReply* const m_rs;
    const Limits m_limits;
    PagedResults m_paging;
    bool m_nothingFound = false;  // objects were to follow, and none of them has been sent
};
