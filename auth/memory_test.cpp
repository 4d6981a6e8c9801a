// After a bind, no byte of a password is left in the process's writable memory;
// after the cache is cleared, none of a salt or a hash either.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "auth/credentials.h"
#include "auth/lutil_faults.h"
#include "backend/settings.h"
#include "tests/standin/vex_standin.h"

#include "auth/bind.h"
#include "tests/standin/slapd_standin.h"

namespace {

constexpr const char* kDn = "CN=ann,DC=x";
constexpr unsigned char kMask = 0x5a;

// A text that this program keeps only in disguise: each byte is masked.
class Disguised {
  public:
    explicit Disguised(std::vector<unsigned char> masked) : m_masked(std::move(masked)) {}

    // Random letters.
    static Disguised random(std::size_t size) {
        std::vector<unsigned char> bytes(size);
        EXPECT_EQ(getrandom(bytes.data(), size, 0), static_cast<ssize_t>(size));
        for (unsigned char& byte : bytes) byte = static_cast<unsigned char>('A' + byte % 26) ^ kMask;
        return Disguised(bytes);
    }
    static Disguised of(const std::string& text) {
        std::vector<unsigned char> masked;
        for (char c : text) masked.push_back(static_cast<unsigned char>(c) ^ kMask);
        return Disguised(masked);
    }

    // Writes the text itself, with a NUL, to a place of size() + 1 bytes.
    void reveal(char* place) const {
        for (unsigned char byte : m_masked) *place++ = static_cast<char>(byte ^ kMask);
        *place = '\0';
    }
    std::size_t size() const { return m_masked.size(); }
    int firstByte() const { return m_masked[0] ^ kMask; }
    bool startsAt(const unsigned char* place) const {
        for (std::size_t i = 0; i < m_masked.size(); ++i)
            if ((place[i] ^ kMask) != m_masked[i]) return false;
        return true;
    }

  private:
    std::vector<unsigned char> m_masked;
};

// Looks for a text in all writable mappings.
class MemoryScan {
  public:
    MemoryScan() : m_memory(open("/proc/self/mem", O_RDONLY | O_CLOEXEC)), m_block(kBlock) {}
    ~MemoryScan() { close(m_memory); }

    int count(const Disguised& text) {
        int found = 0;
        for (const auto& [start, end] : writable()) found += countIn(start, end, text);
        explicit_bzero(m_block.data(), m_block.size());
        return found;
    }

  private:
    static constexpr std::size_t kBlock = 1 << 20;
    // A sanitizer's shadow memory is larger than this, whatever the program holds smaller.
    static constexpr std::uintptr_t kLargest = std::uintptr_t{1} << 28;

    struct Range {
        std::uintptr_t start, end;
    };

    static std::vector<Range> writable() {
        std::vector<Range> ranges;
        std::FILE* maps = std::fopen("/proc/self/maps", "re");
        char line[512];
        while (std::fgets(line, sizeof line, maps)) {
            unsigned long start = 0, end = 0;
            char mode[5] = "";
            if (std::sscanf(line, "%lx-%lx %4s", &start, &end, mode) == 3 && mode[0] == 'r' &&
                mode[1] == 'w' && end - start < kLargest)
                ranges.push_back({start, end});
        }
        std::fclose(maps);
        return ranges;
    }

    // The next place up to the last that holds the text's first byte, or null: most
    // memory is passed over at memchr's speed.
    static const unsigned char* nextFirst(const unsigned char* from, const unsigned char* last,
                                          const Disguised& text) {
        return static_cast<const unsigned char*>(
            std::memchr(from, text.firstByte(), static_cast<std::size_t>(last - from) + 1));
    }

    // Blocks overlap by one text; the block itself is not looked at.
    int countIn(std::uintptr_t start, std::uintptr_t end, const Disguised& text) {
        const auto own = reinterpret_cast<std::uintptr_t>(m_block.data());
        int found = 0;
        for (std::uintptr_t place = start; place + text.size() <= end; place += kBlock - text.size()) {
            const ssize_t got = pread(m_memory, m_block.data(), std::min<std::size_t>(kBlock, end - place),
                                      static_cast<off_t>(place));
            const unsigned char* last = m_block.data() + got - static_cast<ssize_t>(text.size());
            const unsigned char* hit = m_block.data();
            for (; hit <= last && (hit = nextFirst(hit, last, text)) != nullptr; ++hit) {
                const std::uintptr_t where = place + static_cast<std::uintptr_t>(hit - m_block.data());
                const bool inBlock = where + text.size() > own && where < own + kBlock;
                if (!inBlock && text.startsAt(hit)) ++found;
            }
        }
        return found;
    }

    const int m_memory;
    std::vector<unsigned char> m_block;
};

class Memory : public testing::Test {
  protected:
    void SetUp() override {
        standin::reset();
        standin::showPasswords(false);
        lutilFaults() = {};
        back_vex_creds = new CredManager;
    }
    void TearDown() override {
        delete back_vex_creds;
        back_vex_creds = nullptr;
        vexFreeStringSet(gSupportedObjectAttrList.exchange(nullptr));
        standin::reset();
    }

    // One bind with the password, which this function leaves nowhere.
    static int bind(const Disguised& password, MemoryScan* during = nullptr) {
        standin::FakeConnection client(7);
        standin::FakeOperation operation(client);
        std::vector<char> text(password.size() + 1);
        password.reveal(text.data());
        operation.bind(kDn, text.data());
        explicit_bzero(text.data(), text.size());
        const int result = vex_back_bind(operation.op(), operation.reply());
        if (during != nullptr) {
            EXPECT_EQ(during->count(password), 1) << "the request's own";
        }
        return result;
    }

    MemoryScan scan;
};

// Short ones live in a string's own buffer, long ones on the heap; those of more
// than 64 bytes pass through the hash in blocks.
TEST_F(Memory, NoPasswordIsLeftAfterABind) {
    for (std::size_t size : {12u, 15u, 16u, 48u, 120u}) {
        const Disguised password = Disguised::random(size);
        standin::acceptEveryone(true);
        EXPECT_EQ(bind(password, &scan), 0) << size;
        EXPECT_EQ(scan.count(password), 0) << "validated by the agent, " << size;
        EXPECT_EQ(bind(password), 0);
        EXPECT_EQ(scan.count(password), 0) << "answered from the cache, " << size;
        standin::acceptEveryone(false);
        const Disguised wrong = Disguised::random(size);
        EXPECT_EQ(bind(wrong), 49);
        EXPECT_EQ(scan.count(wrong), 0) << "refused, " << size;
    }
}

TEST_F(Memory, NoPasswordIsLeftWhenHashingOrSaltFails) {
    standin::acceptEveryone(true);
    const Disguised password = Disguised::random(24);
    lutilFaults().hashFails = true;
    EXPECT_EQ(bind(password), 0);
    EXPECT_EQ(scan.count(password), 0);
    lutilFaults().hashFails = false;
    lutilFaults().entropyFails = true;
    EXPECT_EQ(bind(password), 0);
    EXPECT_EQ(scan.count(password), 0);
}

// The salt is known here, so the hash is too.
TEST_F(Memory, NoSaltAndNoHashIsLeftOnceTheCredentialIsGone) {
    standin::acceptEveryone(true);
    const Disguised password = Disguised::random(24);
    const Disguised salt = Disguised::random(16);
    std::unique_ptr<Disguised> hash;
    {
        char secret[25], bytes[17];
        password.reveal(secret);
        salt.reveal(bytes);
        hash = std::make_unique<Disguised>(
            Disguised::of(HashPassword(Shredder(secret), Shredder(bytes)).text()));
        lutilFaults().entropy.assign(bytes, 16);
        explicit_bzero(secret, sizeof secret);
        explicit_bzero(bytes, sizeof bytes);
    }
    EXPECT_EQ(scan.count(*hash), 0);
    EXPECT_EQ(bind(password), 0);
    EXPECT_EQ(bind(password), 0);
    vorn::wipe(lutilFaults().entropy);
    EXPECT_EQ(scan.count(*hash), 1) << "the record's own";
    EXPECT_EQ(scan.count(salt), 1) << "the record's own";
    back_vex_creds->addCreds(7, kDn, "another");
    EXPECT_EQ(scan.count(*hash), 0) << "replaced";
    EXPECT_EQ(scan.count(salt), 0) << "replaced";
}

TEST_F(Memory, ClearingLeavesNoHash) {
    lutilFaults().entropy = "0123456789abcdef";
    const Disguised hash =
        Disguised::of(HashPassword(Shredder("secret"), Shredder("0123456789abcdef")).text());
    back_vex_creds->addCreds(7, kDn, "secret");
    EXPECT_EQ(scan.count(hash), 1);
    back_vex_creds->clearCreds();
    EXPECT_EQ(scan.count(hash), 0);
    back_vex_creds->addCreds(7, kDn, "secret");
    EXPECT_EQ(scan.count(hash), 1);
    back_vex_creds->delCreds(7);
    EXPECT_EQ(scan.count(hash), 0);
}

TEST_F(Memory, MovingASecretLeavesNothingBehind) {
    for (std::size_t size : {8u, 15u, 40u}) {
        const Disguised secret = Disguised::random(size);
        char text[64];
        secret.reveal(text);
        Shredder first{std::string_view(text)};
        explicit_bzero(text, sizeof text);
        Shredder second(std::move(first));
        Shredder third;
        third = std::move(second);
        EXPECT_EQ(scan.count(secret), 1) << size;
        third = Shredder("other");
        EXPECT_EQ(scan.count(secret), 0) << size;
    }
}

}  // namespace
