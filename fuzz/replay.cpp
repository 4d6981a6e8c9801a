// SPDX-License-Identifier: Apache-2.0
// Runs a fuzz target over the files of the folders given, as an ordinary test:
// what was once found stays fixed, without a fuzzer at hand.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

namespace fs = std::filesystem;

// Whether the file could be read.
bool replay(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    if (!file.is_open() || file.bad()) return false;
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    return true;
}

}  // namespace

int main(int count, char** arguments) try {
    std::size_t replayed = 0;
    for (int i = 1; i < count; ++i) {
        for (const fs::directory_entry& entry : fs::recursive_directory_iterator(arguments[i])) {
            if (!entry.is_regular_file()) continue;
            if (!replay(entry.path())) {
                std::fprintf(stderr, "cannot read %s\n", entry.path().c_str());
                return 1;
            }
            ++replayed;
        }
    }
    std::printf("%zu inputs\n", replayed);
    return replayed == 0 ? 1 : 0;
} catch (const fs::filesystem_error& failure) {
    std::fprintf(stderr, "%s\n", failure.what());
    return 1;
}
