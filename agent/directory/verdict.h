// SPDX-License-Identifier: Apache-2.0
// What came of checking a password.
//
// "Accepted" needs a proof. Only the four places that find out that a password is right
// can make one. No default, no variable that is left over after a loop, and no success of
// a single step is a proof.
#pragma once

#include <optional>
#include <utility>

#include "agent/directory/result.h"

namespace vexagent {

// The proof that somebody's password was right, just now.
class Accepted {
    // One place each: a KDC's answer that the keytab has verified, a controller's answer
    // to a bind, a hash in the directory, a hash of an earlier log-in.
    friend class KerberosProof;
    friend class BindProof;
    friend class HashProof;
    friend class MemoryProof;

    explicit Accepted() {}
};

class Verdict {
  public:
    Verdict(const Accepted&) : m_accepted(true) {}
    // Refused, or why it could not be told. A result that is no failure says nothing about
    // a password, so it becomes a failure here.
    Verdict(Result failure) : m_result(std::move(failure)) {
        const bool nothing = m_result.errSystem == VEX_ERR_LDAP && m_result.errCode == 0;
        if (m_result.ok() || nothing)
            m_result = Result::agent(VEX_DIRECTORY_ERROR, "the password was not checked");
    }

    bool accepted() const { return m_accepted; }
    // VEX_OK when it was accepted, and only then.
    const Result& result() const { return m_result; }
    vexCode code() const { return m_result.code; }

  private:
    bool m_accepted = false;
    Result m_result;
};

}  // namespace vexagent
