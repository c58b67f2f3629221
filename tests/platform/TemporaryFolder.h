// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_PLATFORM_TEMPORARYFOLDER_H
#define TALLYRA_TESTS_PLATFORM_TEMPORARYFOLDER_H

#include <filesystem>
#include <string>

/// A folder of a test's own, removed with everything in it.
class CTemporaryFolder {
  public:
    CTemporaryFolder();
    ~CTemporaryFolder();
    CTemporaryFolder(const CTemporaryFolder&) = delete;
    CTemporaryFolder& operator=(const CTemporaryFolder&) = delete;

    const std::filesystem::path& Path() const { return m_Path; }

    /// Writes a file in place, making its folder.
    void Write(const std::string& name, const std::string& text) const;
    /// Replaces a file atomically.
    void Replace(const std::string& name, const std::string& text) const;

  private:
    std::filesystem::path m_Path;
};

#endif  // TALLYRA_TESTS_PLATFORM_TEMPORARYFOLDER_H
