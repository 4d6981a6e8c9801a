// SPDX-License-Identifier: Apache-2.0
// The agent as a process: each test forks it.

#include "agent/agent.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <functional>

#include "agent/embedded/directory_testing.h"
#include "agent/process.h"
#include "agent/server/folder_lock.h"

namespace vexagent {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

constexpr int kSoonMs = 20'000;

// A child that does something and ends with what that gives; its output in files.
class Child {
  public:
    Child(const TemporaryFolder& folder, const std::function<int()>& action)
        : m_out(folder.file("out")), m_err(folder.file("err")), m_process(forked()) {
        if (m_process != 0) return;
        redirect(m_out, STDOUT_FILENO);
        redirect(m_err, STDERR_FILENO);
        std::exit(action());
    }
    ~Child() {
        if (m_status < 0) ::kill(m_process, SIGKILL);
        status();
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // The exit status; 128 and the signal of one that was killed.
    int status() {
        int status = 0;
        if (m_status < 0 && ::waitpid(m_process, &status, 0) == m_process)
            m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return m_status;
    }
    std::string out() const { return TemporaryFolder::read(m_out); }
    std::string err() const { return TemporaryFolder::read(m_err); }
    void signal(int number) const { ::kill(m_process, number); }

  private:
    // With nothing in its streams that the parent has to write.
    static pid_t forked() {
        std::fflush(nullptr);
        return ::fork();
    }
    static void redirect(const std::string& path, int descriptor) {
        const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        ::dup2(file, descriptor);
        ::close(file);
    }

    const std::string m_out, m_err;
    const pid_t m_process;
    int m_status = -1;
};

int runWords(std::vector<std::string> words) {
    words.insert(words.begin(), "vexagent");
    std::vector<char*> pointers;
    for (std::string& word : words) pointers.push_back(word.data());
    pointers.push_back(nullptr);
    return start(parseOptions(static_cast<int>(words.size()), pointers.data()));
}

struct Ended {
    int status;
    std::string out, err;
};

// For words with which the agent ends by itself.
Ended run(const std::vector<std::string>& words) {
    const TemporaryFolder folder;
    Child child(folder, [&] { return runWords(words); });
    const int status = child.status();
    return {status, child.out(), child.err()};
}

TEST(CommandLine, HelpShowsTheOptionsAndTheSettings) {
    const Ended help = run({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_THAT(help.out, StartsWith("Usage: vexagent [--config FILE] [--check]\n"));
    EXPECT_THAT(help.out, HasSubstr("\n  agent.socket           "));
    EXPECT_THAT(help.out, HasSubstr(" (/run/zanthe/vexagent.sock)\n"));
    // A setting without a default has no brackets.
    const std::size_t line = help.out.find("\n  embedded.ldif ");
    ASSERT_NE(line, std::string::npos);
    EXPECT_THAT(help.out.substr(line + 1, help.out.find('\n', line + 1) - line - 1), Not(EndsWith(")")));
    EXPECT_EQ(help.err, "");
}

TEST(CommandLine, TheVersionIsShown) {
    const Ended version = run({"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out, "vexagent " VEXAGENT_VERSION "\n");
}

TEST(CommandLine, MistakesAreNamed) {
    const std::pair<std::vector<std::string>, const char*> cases[] = {
        {{"--config"}, "vexagent: --config needs a value; try --help\n"},
        {{"--nothing"}, "vexagent: unknown option --nothing; try --help\n"},
        {{"--check", "--nothing"}, "vexagent: unknown option --nothing; try --help\n"},
        {{"word"}, "vexagent: unexpected word \"word\"; try --help\n"},
        {{"--check", "first", "second"}, "vexagent: unexpected word \"first\"; try --help\n"},
    };
    for (const auto& [words, complaint] : cases) {
        const Ended ended = run(words);
        EXPECT_EQ(ended.status, kBadUsage) << complaint;
        EXPECT_EQ(ended.err, complaint);
        EXPECT_EQ(ended.out, "");
    }
}

// A host with a directory in a folder of its own.
class Host {
  public:
    explicit Host(const std::string& more = "") {
        m_folder.write("people.ldif", units() + person("Ann", "ann", 1001));
        ::chmod(ldif().c_str(), 0600);
        configure("embedded.ldif = " + ldif() + "\n" + more);
    }

    void configure(const std::string& more) const {
        m_folder.write("host.conf", "domain.name = example.com\nagent.socket = " + socket() +
                                        "\nembedded.database = " + database() + "\n" + more);
    }
    Ended run(std::vector<std::string> words = {}) const {
        words.insert(words.begin(), {"--config", m_folder.file("host.conf")});
        return vexagent::run(words);
    }
    std::unique_ptr<Child> start() const {
        return std::make_unique<Child>(m_folder, [this] {
            return runWords({"--config", m_folder.file("host.conf")});
        });
    }

    const TemporaryFolder& folder() const { return m_folder; }
    std::string ldif() const { return m_folder.file("people.ldif"); }
    std::string database() const { return m_folder.file("directory.ldb"); }
    std::string socket() const { return m_folder.file("agent.sock"); }

  private:
    const TemporaryFolder m_folder;
};

// What the agent tells who started it.
class Manager {
  public:
    explicit Manager(const std::string& path) : m_descriptor(::socket(AF_UNIX, SOCK_DGRAM, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, path.size());
        EXPECT_EQ(::bind(m_descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
    }
    ~Manager() {
        ::unsetenv("NOTIFY_SOCKET");
        ::close(m_descriptor);
    }
    std::string hear() const {
        pollfd waits{m_descriptor, POLLIN, 0};
        char text[64];
        if (::poll(&waits, 1, kSoonMs) <= 0) return "nothing";
        return {text, static_cast<std::size_t>(::recv(m_descriptor, text, sizeof text, 0))};
    }

  private:
    const int m_descriptor;
};

int connectTo(const std::string& path) {
    const int client = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, path.size());
    if (::connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return client;
    ::close(client);
    return -1;
}

// Whether a file says it soon.
bool says(const std::function<std::string()>& text, const std::string& what) {
    for (int i = 0; i < kSoonMs / 10; ++i) {
        if (text().find(what) != std::string::npos) return true;
        ::poll(nullptr, 0, 10);
    }
    return false;
}

unsigned modeOf(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 0777 : 0;
}

TEST(Check, GoodSettingsNeedNoDatabaseAndMakeNone) {
    const Host host;
    const Ended ended = host.run({"--check"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.err, "");
    EXPECT_FALSE(std::filesystem::exists(host.database()));
    EXPECT_FALSE(std::filesystem::exists(host.socket()));
}

TEST(Check, SettingsThatCannotBeUsedAreAMistake) {
    const Host host;
    host.configure("agent.threads = many\n");
    Ended ended = host.run({"--check"});
    EXPECT_EQ(ended.status, kBadUsage);
    EXPECT_THAT(ended.err, StartsWith("vexagent: " + host.folder().file("host.conf") + ":4: "));
    ended = run({"--config", host.folder().file("missing.conf")});
    EXPECT_EQ(ended.status, kBadUsage);
    EXPECT_THAT(ended.err, HasSubstr("missing.conf"));
}

TEST(Check, ADatabaseThatIsNoneIsToldOf) {
    const Host host;
    host.folder().write("directory.ldb", "nothing of the kind");
    const Ended ended = host.run({"--check"});
    EXPECT_EQ(ended.status, kStartFailed);
    EXPECT_THAT(ended.err, StartsWith("vexagent: "));
}

TEST(Check, OfADomainSaysWhatIsWrong) {
    const Host host;
    host.configure("directory = ad\nad.servers = nobody.invalid\nad.keytab = " +
                   host.folder().file("missing.keytab") + "\n");
    const Ended ended = host.run({"--check"});
    EXPECT_EQ(ended.status, kStartFailed);
    EXPECT_THAT(ended.out, HasSubstr("wrong: "));
    EXPECT_THAT(ended.out, HasSubstr("missing.keytab"));
}

TEST(Start, WithoutADatabaseAndAnLdifFails) {
    const Host host;
    host.configure("");
    const Ended ended = host.run();
    EXPECT_EQ(ended.status, kStartFailed);
    EXPECT_EQ(ended.err,
              "vexagent: " + host.database() +
                  ": No such file or directory; embedded.ldif names the LDIF file to build it from\n");
}

TEST(Start, ASocketThatCannotBeMadeFails) {
    const Host host("agent.socket.group = nobody-of-this-name\n");
    EXPECT_NE(host.run().status, 0);
    EXPECT_FALSE(std::filesystem::exists(host.socket()));
}

TEST(Run, BuildsTheDatabaseServesAndStops) {
    const Host host;
    const Manager manager(host.folder().file("notify"));
    const std::unique_ptr<Child> agent = host.start();
    ASSERT_EQ(manager.hear(), "READY=1") << agent->err();
    EXPECT_EQ(modeOf(host.database()), 0600u);

    const int client = connectTo(host.socket());
    ASSERT_GE(client, 0);
    char greeting[4];
    EXPECT_EQ(::recv(client, greeting, sizeof greeting, MSG_WAITALL), 4);

    agent->signal(SIGTERM);
    EXPECT_EQ(manager.hear(), "STOPPING=1\nEXTEND_TIMEOUT_USEC=15000000");
    EXPECT_EQ(agent->status(), 0);
    EXPECT_FALSE(std::filesystem::exists(host.socket()));
    EXPECT_EQ(agent->err(), "");
    ::close(client);
}

TEST(Run, ADatabaseThatIsThereNeedsNoLdif) {
    const Host host;
    const Manager manager(host.folder().file("notify"));
    {
        const std::unique_ptr<Child> agent = host.start();
        ASSERT_EQ(manager.hear(), "READY=1") << agent->err();
        agent->signal(SIGINT);
        EXPECT_EQ(manager.hear(), "STOPPING=1\nEXTEND_TIMEOUT_USEC=15000000");
        EXPECT_EQ(agent->status(), 0);
    }
    const auto written = std::filesystem::last_write_time(host.database());
    EXPECT_EQ(host.run({"--check"}).status, 0);
    host.configure("embedded.ldif = /nowhere/people.ldif\n");
    const std::unique_ptr<Child> agent = host.start();
    EXPECT_EQ(manager.hear(), "READY=1") << agent->err();
    EXPECT_EQ(std::filesystem::last_write_time(host.database()), written);
}

TEST(Run, WaitsForAnotherThatBuildsTheDatabase) {
    const Host host;
    const Manager manager(host.folder().file("notify"));
    const TemporaryFolder ofOther;
    Child other(ofOther, [&] {
        const FolderLock lock(host.database());
        std::puts("locked");
        std::fflush(stdout);
        return ::pause();
    });
    ASSERT_TRUE(says([&] { return other.out(); }, "locked"));
    const std::unique_ptr<Child> agent = host.start();
    ::poll(nullptr, 0, 300);
    EXPECT_FALSE(std::filesystem::exists(host.database()));
    other.signal(SIGKILL);
    EXPECT_EQ(manager.hear(), "READY=1") << agent->err();
}

TEST(Run, TellsItsStatisticsWhenAsked) {
    const Host host;
    const Manager manager(host.folder().file("notify"));
    const std::unique_ptr<Child> agent = host.start();
    ASSERT_EQ(manager.hear(), "READY=1") << agent->err();
    for (const char* both : {"vexagent: ", "\nvexagent: "}) {
        agent->signal(SIGUSR1);
        EXPECT_TRUE(says([&] { return agent->err(); }, both)) << agent->err();
    }
}

TEST(Run, ReadsTheLevelsOfItsLogAnew) {
    const Host host;
    const std::string log = host.folder().file("log");
    const Manager manager(host.folder().file("notify"));
    const std::unique_ptr<Child> agent = host.start();
    ASSERT_EQ(manager.hear(), "READY=1") << agent->err();
    std::filesystem::remove(host.folder().file("host.conf"));
    agent->signal(SIGHUP);
    EXPECT_TRUE(says([&] { return agent->err(); }, "host.conf")) << agent->err();

    host.configure("log.file = " + log + "\nlog.level = 1\n");
    agent->signal(SIGHUP);
    agent->signal(SIGUSR1);
    EXPECT_TRUE(says([&] { return TemporaryFolder::read(log); }, "requests served")) << agent->err();
}

TEST(Run, SaysWhenOthersCanReadTheHashesOfItsLdif) {
    const Host host;
    const Manager manager(host.folder().file("notify"));
    host.folder().write("people.ldif", units() + person("Ann", "ann", 1001, "userPassword: {CLEAR}x\n"));
    ::chmod(host.ldif().c_str(), 0644);
    const std::unique_ptr<Child> agent = host.start();
    ASSERT_EQ(manager.hear(), "READY=1") << agent->err();
    EXPECT_EQ(agent->err(), "vexagent: " + host.ldif() +
                                ": others can read the password hashes in it (embedded.ldif); install -o "
                                "vexagent -m 400 makes a copy that is the agent's alone\n");
}

// ---- what the process asks of the system

TEST(Process, IsReadByNobody) {
    const TemporaryFolder folder;
    Child child(folder, [] {
        closeMemory();
        rlimit cores{1, 1};
        ::getrlimit(RLIMIT_CORE, &cores);
        return static_cast<int>(cores.rlim_cur + cores.rlim_max) + ::prctl(PR_GET_DUMPABLE);
    });
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_EQ(child.status(), 0);
#endif
}

TEST(Process, HasAsManyDescriptorsAsItMay) {
    const TemporaryFolder folder;
    Child child(folder, [] {
        const rlimit few{20, 100};
        ::setrlimit(RLIMIT_NOFILE, &few);
        raiseDescriptorLimit();
        rlimit now{};
        ::getrlimit(RLIMIT_NOFILE, &now);
        return static_cast<int>(now.rlim_cur);
    });
    EXPECT_EQ(child.status(), 100);
}

TEST(Start, RaisesTheLimitOfDescriptorsAndKeepsItsFilesToItself) {
    const Host host;
    const TemporaryFolder folder;
    Child child(folder, [&] {
        const rlimit few{20, 100};
        ::setrlimit(RLIMIT_NOFILE, &few);
        ::umask(0);
        start({host.folder().file("host.conf"), true});
        rlimit now{};
        ::getrlimit(RLIMIT_NOFILE, &now);
        return now.rlim_cur == 100 && ::umask(0) == 077 && ::signal(SIGPIPE, SIG_DFL) == SIG_IGN ? 0 : 1;
    });
    EXPECT_EQ(child.status(), 0);
}

}  // namespace
}  // namespace vexagent
