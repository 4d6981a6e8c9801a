// SPDX-License-Identifier: Apache-2.0
#include "tests/standin/vex_standin.h"

#include <gmock/gmock.h>

#include "tests/standin/captured.h"
#include "tests/standin/slapd_standin.h"

namespace {

class SlapdStandin : public testing::Test {
  protected:
    void SetUp() override { standin::resetSlapd(); }
};

TEST_F(SlapdStandin, RecordsResultsAsTheyWereAtTheMomentOfSending) {
    standin::FakeConnection connection(7);
    standin::FakeOperation operation(connection);
    operation.bind("CN=ann,DC=x", "secret");
    EXPECT_EQ(operation.op()->o_connid, 7u);
    EXPECT_STREQ(operation.op()->o_req_dn.bv_val, "CN=ann,DC=x");
    EXPECT_STREQ(operation.op()->orb_cred.bv_val, "secret");
    char text[] = "first";
    operation.reply()->sr_err = 49;
    operation.reply()->sr_text = text;
    send_ldap_result(operation.op(), operation.reply());
    text[0] = 'F';
    ASSERT_EQ(connection.sent().size(), 1u);
    EXPECT_EQ(connection.sent()[0].code, 49);
    EXPECT_EQ(connection.sent()[0].text, "first");
    EXPECT_FALSE(connection.sent()[0].isEntry);
}

TEST_F(SlapdStandin, MakesSendsAndFreesEntries) {
    standin::knowAttribute("cn");
    char ldif[] = "dn: CN=ann,DC=x\ncn: ann\nphoto:: YWI=\nempty:\n";
    Entry* entry = str2entry(ldif);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(standin::liveEntries(), 1);
    standin::FakeConnection connection;
    standin::FakeOperation operation(connection);
    operation.reply()->sr_entry = entry;
    operation.reply()->sr_flags = REP_ENTRY_MUSTBEFREED;
    EXPECT_EQ(send_search_entry(operation.op(), operation.reply()), 0);
    EXPECT_EQ(connection.sent().at(0).text, "dn: CN=ann,DC=x\ncn: ann\nPHOTO: ab\nEMPTY: \n");
    EXPECT_EQ(standin::liveEntries(), 0);
    EXPECT_EQ(operation.reply()->sr_nentries, 1);
    connection.entriesAnswer(4);
    EXPECT_EQ(send_search_entry(operation.op(), operation.reply()), 4);
    char noDn[] = "cn: ann\n";
    EXPECT_EQ(str2entry(noDn), nullptr);
    standin::rejectEntriesWith("ann");
    EXPECT_EQ(str2entry(ldif), nullptr);
    EXPECT_EQ(standin::liveEntries(), 0);
}

TEST_F(SlapdStandin, KnowsTheAttributesThatATestNames) {
    standin::knowAttribute("userCertificate", true);
    AttributeDescription* description = nullptr;
    const char* text = nullptr;
    ASSERT_EQ(slap_str2ad("USERcertificate", &description, &text), LDAP_SUCCESS);
    EXPECT_TRUE(slap_syntax_is_binary(description->ad_type->sat_syntax));
    EXPECT_EQ(slap_str2ad("other", &description, &text), LDAP_UNDEFINED_TYPE);
}

TEST_F(SlapdStandin, MapsTheClientLibrarysCodes) {
    const struct {
        int code, result;
    } cases[] = {{-1, 52},  {-2, 80},  {-3, 2},   {-4, 2},   {-5, 52}, {-6, 7},   {-7, 80},  {-8, 80},
                 {-9, 2},   {-10, 80}, {-11, 52}, {-12, 53}, {-13, 2}, {-14, 32}, {-15, 80}, {-16, 54},
                 {-17, 54}, {-18, 80}, {0, 0},    {32, 32},  {49, 49}, {53, 53}};
    for (auto [code, result] : cases) {
        SlapReply reply{};
        reply.sr_err = code;
        EXPECT_EQ(slap_map_api2result(&reply), result) << code;
    }
}

TEST_F(SlapdStandin, AddsControlsForOneResult) {
    standin::FakeConnection connection;
    standin::FakeOperation operation(connection);
    char oid[] = "1.2.3", value[] = "v";
    LDAPControl control = {oid, {1, value}, 0};
    LDAPControl* controls[] = {&control, nullptr};
    slap_add_ctrls(operation.op(), operation.reply(), controls);
    slap_add_ctrls(operation.op(), operation.reply(), controls);
    send_ldap_result(operation.op(), operation.reply());
    send_ldap_result(operation.op(), operation.reply());
    EXPECT_EQ(connection.sent()[0].controls.size(), 2u);
    EXPECT_EQ(connection.sent()[0].controls[0].value, "v");
    EXPECT_EQ(connection.sent()[1].controls.size(), 0u);
}

TEST_F(SlapdStandin, CatchesStandardError) {
    standin::CapturedStderr captured;
    std::fprintf(stderr, "hello\n");
    EXPECT_EQ(captured.text(), "hello\n");
}

}  // namespace
