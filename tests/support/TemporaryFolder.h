// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SUPPORT_TEMPORARYFOLDER_H
#define TALLYRA_TESTS_SUPPORT_TEMPORARYFOLDER_H

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>

/// @return the content of a file; empty when it cannot be read
inline std::string ReadFile(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

/// A folder of a test's own. Its destructor removes the folder and everything in it.
class CTemporaryFolder {
  public:
    /// @throws std::system_error  when the folder cannot be created
    CTemporaryFolder() {
        std::string path = std::filesystem::temp_directory_path() / "tallyra-test-XXXXXX";
        if (mkdtemp(path.data()) == nullptr) {
            throw std::system_error(errno, std::generic_category(), "mkdtemp");
        }
        m_Path = path;
    }
    ~CTemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(m_Path, ignored);
    }
    CTemporaryFolder(const CTemporaryFolder&) = delete;
    CTemporaryFolder& operator=(const CTemporaryFolder&) = delete;

    const std::filesystem::path& Path() const { return m_Path; }

    /// Writes a file in place. Creates missing parent folders.
    void Write(const std::string& name, const std::string& text) const {
        std::filesystem::create_directories((m_Path / name).parent_path());
        std::ofstream(m_Path / name) << text;
    }

    /// Replaces a file atomically.
    void Replace(const std::string& name, const std::string& text) const {
        Write(name + ".new", text);
        std::filesystem::rename(m_Path / (name + ".new"), m_Path / name);
    }

    /// @return the content of one of its files; empty when it cannot be read
    std::string Read(const std::string& name) const { return ReadFile(m_Path / name); }

  private:
    std::filesystem::path m_Path;
};

#endif  // TALLYRA_TESTS_SUPPORT_TEMPORARYFOLDER_H
