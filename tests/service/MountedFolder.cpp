// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "MountedFolder.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

CMountedFolder::CMountedFolder(const std::string& size) : m_strSize("size=" + size) {
    if (unshare(CLONE_NEWNS) != 0 ||
        mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("none", Path().c_str(), "tmpfs", 0, m_strSize.c_str()) != 0) {
        m_strProblem = std::string("no file system can be mounted: ") + std::strerror(errno);
    }
}

CMountedFolder::~CMountedFolder() {
    if (m_strProblem.empty()) {
        umount2(Path().c_str(), MNT_DETACH);
    }
}

bool CMountedFolder::SetReadOnly(bool readOnly) const {
    return mount("none", Path().c_str(), nullptr, MS_REMOUNT | (readOnly ? MS_RDONLY : 0),
                 m_strSize.c_str()) == 0;
}

void CMountedFolder::Fill() const {
    const std::array<char, 4096> block{};
    const int fd =
        open((Path() / "ballast").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    while (write(fd, block.data(), block.size()) > 0) {
    }
    close(fd);
}

void CMountedFolder::Empty() const {
    std::filesystem::remove(Path() / "ballast");
}
