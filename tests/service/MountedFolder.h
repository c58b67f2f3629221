// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SERVICE_MOUNTEDFOLDER_H
#define TALLYRA_TESTS_SERVICE_MOUNTEDFOLDER_H

#include "TemporaryFolder.h"

#include <filesystem>
#include <string>

/// A folder on a small file system of its own, which only this process and its children see: it
/// leaves the mounts of the machine for good, and takes a privilege to do so.
class CMountedFolder {
  public:
    explicit CMountedFolder(const std::string& size);
    ~CMountedFolder();
    CMountedFolder(const CMountedFolder&) = delete;
    CMountedFolder& operator=(const CMountedFolder&) = delete;

    /// @return why there is no file system; empty when there is
    const std::string& Problem() const { return m_strProblem; }
    const std::filesystem::path& Path() const { return m_Folder.Path(); }

    /// @return whether that worked, which it does not while a file is open for writing
    bool SetReadOnly(bool readOnly) const;
    /// Takes all the room that is left.
    void Fill() const;
    /// Gives back what Fill took.
    void Empty() const;

  private:
    CTemporaryFolder m_Folder;
    std::string m_strSize;
    std::string m_strProblem;
};

#endif  // TALLYRA_TESTS_SERVICE_MOUNTEDFOLDER_H
