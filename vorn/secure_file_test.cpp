// SPDX-License-Identifier: Apache-2.0
#include "vorn/secure_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>

#include "vorn/file_refusal.h"
#include "vorn/temporary_folder_testing.h"

namespace vorn {
namespace {

using test::TemporaryFolder;
namespace fs = std::filesystem;

constexpr uid_t kSomebody = 4711;
constexpr uid_t kSomebodyElse = 4712;

int refusalOf(FileRefusal refusal) {
    return static_cast<int>(refusal);
}

// The reason for which a path is refused; None after the file was made.
int tryOpening(const std::string& path, int mode = 0400) {
    int reason = -1;
    std::FILE* const file = SecureFOpenForWriting(path.c_str(), mode, 0, &reason);
    EXPECT_EQ(file == nullptr, reason != refusalOf(FileRefusal::None));
    if (file != nullptr) std::fclose(file);
    return reason;
}

// The same as another user, in a child process. Only root can become one.
int tryOpeningAs(uid_t user, const std::string& path) {
    const pid_t child = fork();
    if (child == 0) {
        if (setresuid(user, user, user) != 0) _exit(99);
        _exit(tryOpening(path));
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class SecureFile : public testing::Test {
  protected:
    std::string subfolder(mode_t mode, uid_t owner = geteuid()) {
        std::string path = m_folder.file("sub");
        EXPECT_EQ(mkdir(path.c_str(), 0700), 0);
        if (owner != geteuid()) {
            EXPECT_EQ(chown(path.c_str(), owner, static_cast<gid_t>(-1)), 0);
        }
        EXPECT_EQ(chmod(path.c_str(), mode), 0);
        return path;
    }
    // Lets other users reach the folders in it.
    void openToAll() { chmod(m_folder.path().c_str(), 0755); }

    const TemporaryFolder m_folder;
    const std::string m_file = m_folder.file("dump");
};

TEST_F(SecureFile, IsMadeWithExactlyItsMode) {
    const mode_t before = umask(0777);
    for (const int mode : {0400, 0600, 0644, 0666}) {
        const std::string path = m_folder.file(std::to_string(mode));
        EXPECT_EQ(tryOpening(path, mode), refusalOf(FileRefusal::None));
        EXPECT_EQ(static_cast<int>(fs::status(path).permissions()), mode);
    }
    umask(before);
}

TEST_F(SecureFile, TakesWhatIsWritten) {
    std::FILE* const file = SecureFOpenForWriting(m_file.c_str(), 0400, O_APPEND, nullptr);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(fcntl(fileno(file), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(fcntl(fileno(file), F_GETFL) & O_APPEND, O_APPEND) << "further flags count";
    std::fputs("text", file);
    std::fclose(file);
    EXPECT_EQ(TemporaryFolder::read(m_file), "text");
}

TEST_F(SecureFile, IsRefusedInAMissingFolder) {
    EXPECT_EQ(tryOpening(m_folder.file("none/dump")), 1);
    m_folder.write("file", "");
    EXPECT_EQ(tryOpening(m_folder.file("file/dump")), 1) << "a file is no folder";
    EXPECT_EQ(tryOpening(m_folder.file("file/x/dump")), 1);
    EXPECT_EQ(SecureFOpenForWriting(nullptr, 0400, 0, nullptr), nullptr);
}

TEST_F(SecureFile, IsRefusedInAFolderThatIsASymlink) {
    const std::string real = subfolder(0700);
    fs::create_symlink(real, m_folder.file("link"));
    EXPECT_EQ(tryOpening(m_folder.file("link/dump")), 5);
    EXPECT_EQ(tryOpening(m_folder.file("link//dump")), 5) << "a second slash does not follow the link";
    EXPECT_TRUE(fs::is_empty(real));
}

TEST_F(SecureFile, IsRefusedInAnotherUsersFolder) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root";
    const std::string path = subfolder(0755, kSomebody) + "/dump";
    openToAll();
    EXPECT_EQ(tryOpening(path), 2);
    EXPECT_EQ(tryOpeningAs(kSomebodyElse, path), 2);
    EXPECT_EQ(tryOpeningAs(kSomebody, path), 0) << "the process's own user's folder will do";
}

TEST_F(SecureFile, IsRefusedInAWorldWritableFolder) {
    const std::string folder = subfolder(0777);
    EXPECT_EQ(tryOpening(folder + "/dump"), 3);
    chmod(folder.c_str(), 01777);
    EXPECT_EQ(tryOpening(folder + "/dump"), 3) << "the sticky bit does not excuse it";
    chmod(folder.c_str(), 0775);
    EXPECT_EQ(tryOpening(folder + "/dump"), 0);
}

TEST_F(SecureFile, IsRefusedWhereTheProcessMayNotWrite) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root";
    const std::string folder = subfolder(0755);
    openToAll();
    EXPECT_EQ(tryOpeningAs(kSomebody, folder + "/dump"), 4);
    m_folder.write("sub/old", "");
    EXPECT_EQ(tryOpeningAs(kSomebody, folder + "/old"), 4) << "the folder is checked before the file";
    chmod(folder.c_str(), 0700);
    EXPECT_EQ(tryOpeningAs(kSomebody, folder + "/dump"), 4);
    EXPECT_EQ(tryOpeningAs(kSomebody, folder + "/deeper/dump"), 4);
}

TEST_F(SecureFile, IsRefusedWhereSomethingIs) {
    const std::string old = m_folder.write("old", "kept");
    fs::create_symlink(old, m_folder.file("link"));
    fs::create_symlink(m_folder.file("nowhere"), m_folder.file("dangling"));
    fs::create_directory(m_folder.file("folder"));
    ASSERT_EQ(mkfifo(m_folder.file("pipe").c_str(), 0600), 0);
    m_folder.write("one", "");
    fs::create_hard_link(m_folder.file("one"), m_folder.file("two"));
    const struct {
        const char* name;
        int reason;
    } cases[] = {{"link", 5}, {"dangling", 5}, {"folder", 9}, {"pipe", 9}, {"two", 6},
                 {"old", 8},  {"", 9},         {".", 9},      {"..", 9}};
    for (const auto& [name, reason] : cases) EXPECT_EQ(tryOpening(m_folder.file(name)), reason) << name;
    EXPECT_EQ(TemporaryFolder::read(old), "kept");
    EXPECT_FALSE(fs::exists(m_folder.file("nowhere")));
}

TEST_F(SecureFile, ASecondOneOfTheSameNameIsRefused) {
    EXPECT_EQ(tryOpening(m_file), 0);
    EXPECT_EQ(tryOpening(m_file), 8);
}

TEST_F(SecureFile, ANameThatNoFileCanHaveIsRefused) {
    EXPECT_EQ(tryOpening(m_folder.file(std::string(300, 'x'))), refusalOf(FileRefusal::Other));
}

TEST_F(SecureFile, ARelativePathIsInTheCurrentFolder) {
    const fs::path before = fs::current_path();
    fs::current_path(m_folder.path());
    EXPECT_EQ(tryOpening("dump"), 0);
    fs::current_path(before);
    EXPECT_TRUE(fs::exists(m_file));
}

TEST(FileRefusal, SystemErrorsHaveTheirReason) {
    const struct {
        int error;
        int reason;
    } cases[] = {{ENOENT, 1},  {ENOTDIR, 1}, {EACCES, 4},   {EPERM, 4},  {ELOOP, 5},   {EEXIST, 8},
                 {EISDIR, 9},  {EBUSY, 10},  {ETXTBSY, 10}, {EROFS, 10}, {EAGAIN, 10}, {ENOSPC, 10},
                 {EDQUOT, 10}, {EMFILE, 10}, {ENFILE, 10},  {EIO, 7},    {0, 7}};
    for (const auto& [error, reason] : cases) EXPECT_EQ(refusalOf(refusalFromErrno(error)), reason) << error;
}

TEST(FileRefusal, EachReasonHasItsText) {
    const char* const texts[] = {" has other security issues.",
                                 " does not exist.",
                                 " is not root owned.",
                                 " is world writable.",
                                 " cannot be accessed (insufficient permission).",
                                 " is a symlink.",
                                 " has more than one hardlink.",
                                 " has other security issues.",
                                 " already exists.",
                                 " is not a regular file.",
                                 " access is blocked.",
                                 " has other security issues."};
    int reason = 0;
    for (const char* text : texts) EXPECT_STREQ(fileRefusalText(reason++), text);
    EXPECT_STREQ(fileRefusalText(-1), " has other security issues.");
}

TEST(FileSecurityException, NamesThePathAndTheReason) {
    const auto refused = FileSecurityException::refused("/var/dump", 8);
    EXPECT_STREQ(refused.what(), "/var/dump already exists.");
    EXPECT_EQ(refused.className(), "FileSecurityException");
    EXPECT_EQ(refused.code(), 8);
    EXPECT_STREQ(FileSecurityException::refused(nullptr, 3).what(), " is world writable.");
}

using Owned = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

class SecureStream : public SecureFile {
  protected:
    Owned open(const char* path) { return Owned(std::fopen(path, "w"), std::fclose); }
};

TEST_F(SecureStream, WritesThroughTheFile) {
    const Owned file = open(m_file.c_str());
    secure_ofstream stream(file.get());
    stream << "Key[" << 1 << "]: " << 'x' << std::string(3000, 'y') << "\n";
    stream.close();
    EXPECT_TRUE(stream.good());
    EXPECT_EQ(TemporaryFolder::read(m_file), "Key[1]: x" + std::string(3000, 'y') + "\n");
    stream << "late";
    EXPECT_TRUE(stream.fail()) << "a closed stream takes nothing";
    stream.close();
}

TEST_F(SecureStream, MayOutliveTheFileOnceClosed) {
    Owned file = open(m_file.c_str());
    secure_ofstream stream(file.get());
    stream << "text";
    stream.close();
    file.reset();
    EXPECT_EQ(TemporaryFolder::read(m_file), "text");
}

TEST_F(SecureStream, FlushesWhenItGoes) {
    const Owned file = open(m_file.c_str());
    { secure_ofstream(file.get()) << "text"; }
    EXPECT_EQ(TemporaryFolder::read(m_file), "text");
}

TEST_F(SecureStream, FlushReachesTheFile) {
    const Owned file = open(m_file.c_str());
    secure_ofstream stream(file.get());
    stream << "text" << std::flush;
    EXPECT_EQ(TemporaryFolder::read(m_file), "text");
}

TEST_F(SecureStream, FailsWhenTheDiskIsFull) {
    const Owned file = open("/dev/full");
    secure_ofstream stream(file.get());
    stream << "text";
    stream.close();
    EXPECT_TRUE(stream.fail());
}

}  // namespace
}  // namespace vorn
