// SPDX-License-Identifier: Apache-2.0
#include "backend/base/supported_attributes.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "backend/base/settings.h"
#include "tests/standin/vex_standin.h"

namespace {

// A list as the agent hands it out, in the agent's order.
vex::UniqueStringSet listOf(const std::vector<std::string>& names) {
    standin::supported(names);
    vexSession* session = nullptr;
    vexStringSet* list = nullptr;
    vexSessionOpen(VEX_SESSION_LOCAL, VEX_INTERFACE_LEVEL, &session);
    vexGetObjectSupportedAttributes(session, &list);
    vexSessionClose(session);
    return vex::UniqueStringSet(list);
}

class SupportedAttributes : public testing::Test {
  protected:
    SupportedAttributes() { standin::reset(); }
    ~SupportedAttributes() override {
        vexFreeStringSet(gSupportedObjectAttrList.exchange(nullptr));
        EXPECT_TRUE(standin::leaks().empty());
    }
};

TEST_F(SupportedAttributes, NothingIsKnownBeforeAListIsPublished) {
    EXPECT_FALSE(supportedAttributesAreKnown());
    EXPECT_FALSE(isSupportedAttribute("mail"));
}

TEST_F(SupportedAttributes, AnEmptyListIsAsGoodAsNone) {
    publishSupportedAttributes(listOf({}));
    EXPECT_FALSE(supportedAttributesAreKnown());
}

TEST_F(SupportedAttributes, NamesAreFoundWhateverTheListsOrderAndTheirCase) {
    const std::vector<std::string> names = {"uid",    "Mail", "cn", "mailNickname", "sAMAccountName",
                                            "msDS-x", "m"};
    publishSupportedAttributes(listOf(names));
    EXPECT_TRUE(supportedAttributesAreKnown());
    for (const std::string& name : names) EXPECT_TRUE(isSupportedAttribute(name)) << name;
    for (const char* name : {"UID", "mAIL", "CN", "MAILNICKNAME", "samaccountname", "MSDS-X", "M"})
        EXPECT_TRUE(isSupportedAttribute(name)) << name;
    for (const char* name : {"", "ui", "uidNumber", "mai", "maile", "zzz", "aaa", "msDS"})
        EXPECT_FALSE(isSupportedAttribute(name)) << name;
    EXPECT_FALSE(isSupportedAttribute(std::string_view("m\0x", 3)));
}

TEST_F(SupportedAttributes, OfTwoListsTheFirstStays) {
    const unsigned before = supportedAttributesVersion();
    publishSupportedAttributes(listOf({"mail"}));
    EXPECT_NE(supportedAttributesVersion(), before) << "what was found out without it is out of date";
    publishSupportedAttributes(listOf({"uid"}));
    EXPECT_TRUE(isSupportedAttribute("mail"));
    EXPECT_FALSE(isSupportedAttribute("uid"));
}

}  // namespace
