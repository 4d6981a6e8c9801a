// SPDX-License-Identifier: Apache-2.0
// The proofs themselves are made, and tested, where a password is found out to be right.
#include "agent/directory/verdict.h"

#include <gtest/gtest.h>
#include <ldap.h>

#include <type_traits>

#include "agent/directory/passwords.h"

namespace vexagent {
namespace {

TEST(Verdict, NobodyElseMakesAProof) {
    static_assert(!std::is_default_constructible_v<Accepted>);
    static_assert(!std::is_default_constructible_v<Verdict>);
}

TEST(Verdict, AProofIsAccepted) {
    const std::string hash = newHash("welcome");
    const Verdict verdict = *acceptedByHash("welcome", {hash});
    EXPECT_TRUE(verdict.accepted());
    EXPECT_EQ(verdict.code(), VEX_OK);
}

TEST(Verdict, AFailureIsNotAcceptedAndStaysWhatItIs) {
    const Verdict verdict = Result::ldap(VEX_WRONG_PASSWORD, LDAP_INVALID_CREDENTIALS, "wrong password");
    EXPECT_FALSE(verdict.accepted());
    EXPECT_EQ(verdict.code(), VEX_WRONG_PASSWORD);
    EXPECT_EQ(verdict.result().errText, "wrong password");
}

TEST(Verdict, ThatSomethingWentWellSaysNothingOfAPassword) {
    const Verdict verdict = Result();
    EXPECT_FALSE(verdict.accepted());
    EXPECT_EQ(verdict.code(), VEX_DIRECTORY_ERROR);
    EXPECT_EQ(verdict.result().errText, "the password was not checked");
}

TEST(Verdict, AFailureWithTheNumberOfSuccessIsOne) {
    const Verdict verdict = Result::ldap(VEX_DIRECTORY_ERROR, LDAP_SUCCESS, "made up");
    EXPECT_FALSE(verdict.accepted());
    EXPECT_EQ(verdict.result().errText, "the password was not checked");
    const Verdict agents = Result{VEX_REFUSED, VEX_ERR_AGENT, 0, "refused", {}};
    EXPECT_EQ(agents.result().errText, "refused") << "an agent's number 0 is no LDAP code";
}

}  // namespace
}  // namespace vexagent
