// SPDX-License-Identifier: Apache-2.0
#include "auth/lutil_faults_testing.h"

#include <algorithm>
#include <utility>

#include "backend/base/slapd.h"

LutilFaults& lutilFaults() {
    static LutilFaults faults;
    return faults;
}

extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier): these are the linker's names, for --wrap

int __real_lutil_entropy(unsigned char* bytes, ber_len_t size);
int __real_lutil_passwd_hash(const berval* secret, const char* scheme, berval* hash, const char** text);

int __wrap_lutil_entropy(unsigned char* bytes, ber_len_t size) {
    const LutilFaults& faults = lutilFaults();
    if (faults.entropyFails) return -1;
    if (faults.entropy.empty()) return __real_lutil_entropy(bytes, size);
    std::copy_n(faults.entropy.begin(), std::min<std::size_t>(size, faults.entropy.size()), bytes);
    return 0;
}

int __wrap_lutil_passwd_hash(const berval* secret, const char* scheme, berval* hash, const char** text) {
    LutilFaults& faults = lutilFaults();
    if (faults.record) faults.hashed.emplace_back(secret->bv_val, secret->bv_len);
    if (faults.onHash) std::exchange(faults.onHash, nullptr)();
    if (faults.hashFails) return -1;
    return __real_lutil_passwd_hash(secret, scheme, hash, text);
}

// NOLINTEND(bugprone-reserved-identifier)
}
