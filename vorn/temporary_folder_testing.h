// SPDX-License-Identifier: Apache-2.0
// A folder for one test.
#pragma once

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>

namespace vorn::test {

// Made at construction, with mode 0700, and removed with all that is in it.
class TemporaryFolder {
  public:
    TemporaryFolder() {
        std::string path = std::filesystem::temp_directory_path() / "vorn-XXXXXX";
        if (mkdtemp(path.data()) == nullptr) throw std::system_error(errno, std::generic_category(), path);
        m_path = path;
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::string& path() const { return m_path; }

    // The path of a file in the folder.
    std::string file(const std::string& name) const { return m_path + "/" + name; }

    // The same, after the text was written to it.
    std::string write(const std::string& name, const std::string& text) const {
        std::ofstream(file(name), std::ios::binary) << text;
        return file(name);
    }

    static std::string read(const std::string& path) {
        std::ifstream stream(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(stream), {}};
    }

  private:
    std::string m_path;
};

}  // namespace vorn::test
