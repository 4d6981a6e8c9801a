// SPDX-License-Identifier: Apache-2.0
// Files that this process alone may read.

#include "vorn/own_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "vorn/temporary_folder_testing.h"

namespace vorn {
namespace {

class OwnFile : public ::testing::Test {
  protected:
    std::string write(const std::string& text, mode_t mode = 0600) const {
        std::string file = m_folder.write("secret", text);
        EXPECT_EQ(::chmod(file.c_str(), mode), 0);
        return file;
    }
    static std::string refusal(const std::string& file) {
        Secret content;
        try {
            return readOwnFile(file, 100, content) ? "read" : "not there";
        } catch (const OwnFileError& error) {
            return std::string(error.what()).substr(file.size());
        }
    }
    test::TemporaryFolder m_folder;
};

TEST_F(OwnFile, IsReadWhole) {
    Secret content("of before");
    EXPECT_TRUE(readOwnFile(write(std::string("a\0b\nc", 5)), 5, content));
    EXPECT_EQ(content.text(), std::string("a\0b\nc", 5));
    EXPECT_TRUE(readOwnFile(write("", 0400), 5, content));
    EXPECT_EQ(content.text(), "");
}

TEST_F(OwnFile, IsRefusedWhereOthersMayTouchIt) {
    for (const mode_t mode : {0640, 0604, 0620, 0602, 0610, 0601, 0644, 0666})
        EXPECT_EQ(refusal(write("x", mode)), ": is not a file of the agent's own with mode 0600") << mode;
    EXPECT_EQ(refusal(write("x", 0600)), "read");
    EXPECT_EQ(refusal(write("x", 0400)), "read");
}

TEST_F(OwnFile, IsAFile) {
    EXPECT_EQ(refusal(m_folder.file("none")), "not there");
    EXPECT_EQ(refusal(m_folder.path()), ": is not a file of the agent's own with mode 0600");
    const std::string link = m_folder.file("link");
    ASSERT_EQ(::symlink(write("x").c_str(), link.c_str()), 0);
    EXPECT_EQ(refusal(link), ": Too many levels of symbolic links");
    const std::string pipe = m_folder.file("pipe");
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_EQ(refusal(pipe), ": is not a file of the agent's own with mode 0600");
    EXPECT_EQ(refusal(write(std::string(101, 'x'))), ": is too large");
}

TEST_F(OwnFile, IsRefusedWhenItIsSomebodyElses) {
    const std::string file = write("x");
    if (::chown(file.c_str(), 65534, 65534) != 0) GTEST_SKIP() << "only root can give files away";
    EXPECT_EQ(refusal(file), ": is not a file of the agent's own with mode 0600");
}

TEST_F(OwnFile, HoldsASecretInItsFirstLine) {
    EXPECT_EQ(readSecretLine(write("secret \nmore")).value().text(), "secret ");
    EXPECT_EQ(readSecretLine(write("secret")).value().text(), "secret");
    EXPECT_FALSE(readSecretLine(write("\nmore")));
    EXPECT_FALSE(readSecretLine(write("")));
    EXPECT_FALSE(readSecretLine(m_folder.file("none")));
    EXPECT_THROW(readSecretLine(write("secret", 0644)), OwnFileError);
}

}  // namespace
}  // namespace vorn
