// SPDX-License-Identifier: Apache-2.0
// Linked into the tests that tools/mutants runs: which change is in force, and who reaches what.
//
// MUTATION_CHANGE is the number of the change; without it the code is as it stands. With
// MUTATION_REACHED, a file's name, a line is added to that file for each test that has ended:
// its name ("!" before it when it has failed), its milliseconds, and the functions that it, or
// what its suite sets up, has called; one by the name "*" tells what was called outside of tests.
// What its children have called counts as its own.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#ifdef MUTATION_GTEST
#include <gtest/gtest.h>
#endif

namespace {

constexpr int kFunctions = 1 << 16;

/// Shared with the children that a test forks, and by a file with those that begin anew.
unsigned char* memory() {
    const char* told = std::getenv("MUTATION_REACHED");
    const std::string name = std::string(told == nullptr ? "" : told) + ".functions";
    const int file = told == nullptr ? -1 : open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (told != nullptr && (file < 0 || ftruncate(file, kFunctions) != 0)) std::abort();
    const int shared = MAP_SHARED | (file < 0 ? MAP_ANONYMOUS : 0);
    void* const made = mmap(nullptr, kFunctions, PROT_READ | PROT_WRITE, shared, file, 0);
    if (file >= 0) close(file);
    return static_cast<unsigned char*>(made);
}

unsigned char* reached() {
    static unsigned char* const functions = memory();
    return functions;
}

void clear() {
    std::fill_n(reached(), kFunctions, 0);
}

// In one piece: children of a test tell theirs at the same time.
void tell(const char* test, long milliseconds) {
    std::string line = test + (" " + std::to_string(milliseconds));
    for (int i = 0; i < kFunctions; ++i)
        if (reached()[i]) line += " " + std::to_string(i);
    line += '\n';
    const int file = open(std::getenv("MUTATION_REACHED"), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (file < 0) return;  // a child that may open nothing more
    if (write(file, line.data(), line.size()) != static_cast<ssize_t>(line.size())) std::abort();
    close(file);
}

#ifdef MUTATION_GTEST

class Recorder : public testing::EmptyTestEventListener {
    void OnTestSuiteStart(const testing::TestSuite&) override {
        tell("*", 0);
        clear();
        m_suiteBegins = true;
    }
    void OnTestStart(const testing::TestInfo&) override {
        if (m_suiteBegins) std::copy_n(reached(), kFunctions, m_ofSuite);
        m_suiteBegins = false;
        std::copy_n(m_ofSuite, kFunctions, reached());
    }
    void OnTestEnd(const testing::TestInfo& test) override {
        const std::string name = std::string(test.test_suite_name()) + "." + test.name();
        tell(test.result()->Passed() ? name.c_str() : ("!" + name).c_str(), test.result()->elapsed_time());
        clear();
    }

    bool m_suiteBegins = false;
    unsigned char m_ofSuite[kFunctions] = {};
};

const bool gRecords = [] {
    if (std::getenv("MUTATION_REACHED") != nullptr)
        testing::UnitTest::GetInstance()->listeners().Append(new Recorder);
    return true;
}();

#endif

[[gnu::destructor]] void atEnd() {
    if (std::getenv("MUTATION_REACHED") != nullptr) tell("*", 0);
}

}  // namespace

extern "C" int mutation_change(int function) {
    static const int change = [] {
        const char* number = std::getenv("MUTATION_CHANGE");
        return number == nullptr ? 0 : std::atoi(number);
    }();
    reached()[function] = 1;
    return change;
}
