#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace opal::test {

/// A folder of its own for a test, removed with all that is in it.
class TemporaryDirectory {
  public:
    TemporaryDirectory() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "opal-test-XXXXXX").string();
        if (!mkdtemp(pattern.data()))
            throw std::runtime_error("no temporary directory: " + pattern);
        m_path = pattern;
    }
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::string& Path() const { return m_path; }
    std::string File(const std::string& name) const { return m_path + "/" + name; }
    std::string Write(const std::string& name, const std::string& content) const {
        std::filesystem::create_directories(std::filesystem::path(File(name)).parent_path());
        std::ofstream(File(name), std::ios::binary) << content;
        return File(name);
    }

  private:
    std::string m_path;
};

}  // namespace opal::test
