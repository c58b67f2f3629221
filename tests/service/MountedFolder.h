// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SERVICE_MOUNTEDFOLDER_H
#define TALLYRA_TESTS_SERVICE_MOUNTEDFOLDER_H

#include "TemporaryFolder.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>

/// A folder on a file system of 1 MiB, visible only to this process and its children. Mounting
/// takes the capability CAP_SYS_ADMIN, and moves the process to a mount namespace of its own for
/// good.
class CMountedFolder {
  public:
    CMountedFolder() {
        if (unshare(CLONE_NEWNS) != 0 ||
            mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("none", Path().c_str(), "tmpfs", 0, kSize) != 0) {
            m_strProblem = std::string("cannot mount a file system: ") + std::strerror(errno);
        }
    }
    ~CMountedFolder() {
        if (m_strProblem.empty()) {
            umount2(Path().c_str(), MNT_DETACH);
        }
    }
    CMountedFolder(const CMountedFolder&) = delete;
    CMountedFolder& operator=(const CMountedFolder&) = delete;

    /// @return why mounting failed; empty on success
    const std::string& Problem() const { return m_strProblem; }
    const std::filesystem::path& Path() const { return m_Folder.Path(); }

    /// @return false while a file is open for writing
    bool SetReadOnly(bool readOnly) const {
        return mount("none", Path().c_str(), nullptr, MS_REMOUNT | (readOnly ? MS_RDONLY : 0),
                     kSize) == 0;
    }
    /// Uses up the free space.
    void Fill() const {
        const std::array<char, 4096> block{};
        const int fd =
            open((Path() / "ballast").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        while (write(fd, block.data(), block.size()) > 0) {
        }
        close(fd);
    }
    /// Frees the space that Fill has used.
    void Empty() const { std::filesystem::remove(Path() / "ballast"); }

  private:
    static constexpr const char* kSize = "size=1m";

    CTemporaryFolder m_Folder;
    std::string m_strProblem;
};

#endif  // TALLYRA_TESTS_SERVICE_MOUNTEDFOLDER_H
