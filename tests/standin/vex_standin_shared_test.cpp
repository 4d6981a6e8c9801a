// SPDX-License-Identifier: Apache-2.0
// The shared object, as slapd would load it.
#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "vex/vex.h"

namespace {

using testing::ElementsAre;

class VexStandinShared : public testing::Test {
  protected:
    void SetUp() override {
        char name[] = "/tmp/vex-standin-XXXXXX";
        m_folder = mkdtemp(name);
        setenv("VEX_STANDIN_SCRIPT", (m_folder + "/script").c_str(), 1);
        setenv("VEX_STANDIN_LOG", (m_folder + "/log").c_str(), 1);
    }
    void TearDown() override { std::filesystem::remove_all(m_folder); }

    void script(const std::string& text) {
        std::ofstream(m_folder + "/new") << text;
        std::filesystem::rename(m_folder + "/new", m_folder + "/script");
    }
    std::vector<std::string> log() {
        std::ifstream file(m_folder + "/log");
        std::vector<std::string> lines;
        for (std::string line; std::getline(file, line);) lines.push_back(line);
        return lines;
    }

    std::string m_folder;
};

TEST_F(VexStandinShared, FollowsItsScriptAndWritesItsCalls) {
    script(R"({"always": {"vexSessionOpen": 6}})");
    vexSession* session = nullptr;
    EXPECT_EQ(vexSessionOpen(1, 21, &session), 6);
    script(R"*({"users": {"CN=ann,DC=x.y": {"s.cret": 0}}, "fetch": {"CN=b": 12},
               "searches": [{"filter": "(uid=a)", "end": 6,
                             "objects": [[["cn", "ann"], ["photo", {"hex": "61ff"}, {"none": true}],
                                          {"unreadable": "bad", "code": 8}]]}]})*");
    ASSERT_EQ(vexSessionOpen(1, 21, &session), 0);
    EXPECT_EQ(vexAuthValidatePlainTextUser(session, "CN=ann,DC=x.y", "s.cret", 0), 0);
    EXPECT_EQ(vexAuthValidatePlainTextUser(session, "CN=ann,DC=x.y", "other", 0), 14);
    vexSearchHandle* search = nullptr;
    ASSERT_EQ(vexLdapSearchOpen(session, "", "(uid=a)", "", nullptr, 2, -1, 0, &search), 0);
    vexObject* object = nullptr;
    ASSERT_EQ(vexLdapSearchNext(search, &object), 0);
    vexBlob* values = nullptr;
    int count = 0;
    ASSERT_EQ(vexGetAttributeBlobList(session, object, "photo", &values, &count), 0);
    ASSERT_EQ(count, 2);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(values[0].data), values[0].length), "a\xff");
    EXPECT_EQ(values[1].data, nullptr);
    vexFreeAttributeBlobList(values, count);
    EXPECT_EQ(vexGetAttributeBlobList(session, object, "bad", &values, &count), 8);
    vexFreeObject(object);
    EXPECT_EQ(vexLdapSearchNext(search, &object), 6);
    EXPECT_EQ(vexLdapFetch(session, "", "CN=b", nullptr, &object), 12);
    vexLdapSearchClose(search);
    vexSessionClose(session);
    auto lines = log();
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(lines[2], "vexAuthValidatePlainTextUser(session1, \"CN=ann,DC=x.y\", \"s.cret\", 0)");
    EXPECT_EQ(lines.back(), "vexSessionClose(session1)");
}

TEST_F(VexStandinShared, ReportsAScriptThatItCannotRead) {
    script(R"({"always": {"vexSessionOpen": 12}})");
    vexSession* session = nullptr;
    EXPECT_EQ(vexSessionOpen(1, 21, &session), 12);
    script(R"({"allways": {}})");
    EXPECT_EQ(vexSessionOpen(1, 21, &session), 12);
    EXPECT_THAT(log(), ElementsAre("vexSessionOpen(1, 21)", "failure: script: unknown section allways",
                                   "vexSessionOpen(1, 21)"));
}

}  // namespace
