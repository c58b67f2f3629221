// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "GuestDescriptors.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

// Some hosts close descriptors that they did not open: all from 3 up, before they drop privileges,
// or after a fork. A file of the host may then get the same number. A library that still reads,
// polls or closes that number would take the host's data or close its file.
//
// So before each use a descriptor is compared with what was recorded when it was added: device,
// inode, and the target of its link in /proc/self/fd. Each socket and pipe has an inode of its own,
// so the comparison identifies it. All inotify instances of a machine share one inode and one link
// target, so the group's own cannot be distinguished from one that the host has opened under the
// same number.
//
// Hosts that close descriptors they do not own close whole ranges. So each group contains at least
// one socket, and the group is used only while all of it is intact. If the socket is gone, the
// inotify number is neither used nor closed. Each time that leaks at most one descriptor.
//
// What must always hold: a number is closed only if the whole group is intact, or if its file is
// unique and still the recorded one. One gap remains that the library cannot close: the host may
// close and reuse a number between the check and the system call after it.

CGuestDescriptors::Kind CGuestDescriptors::KindOf(int fd) noexcept {
    std::array<char, sizeof("/proc/self/fd/2147483647")> link{};
    std::snprintf(link.data(), link.size(), "/proc/self/fd/%d", fd);
    Kind kind{};
    if (readlink(link.data(), kind.data(), kind.size()) < 0) {
        kind = {};
    }
    return kind;
}

bool CGuestDescriptors::Add(int fd) noexcept {
    struct stat status {};
    if (fd < 0 || m_nEntries == kMax || fstat(fd, &status) != 0) {
        return false;
    }
    const bool unique = S_ISSOCK(status.st_mode) || S_ISFIFO(status.st_mode);
    m_Entries[m_nEntries++] = {fd, status.st_dev, status.st_ino, unique, KindOf(fd)};
    return true;
}

bool CGuestDescriptors::IsOurs(const Entry& entry) noexcept {
    struct stat status {};
    return fstat(entry.fd, &status) == 0 && status.st_dev == entry.device &&
           status.st_ino == entry.inode && KindOf(entry.fd) == entry.kind;
}

bool CGuestDescriptors::AreOurs() const noexcept {
    return std::all_of(m_Entries.begin(), m_Entries.begin() + m_nEntries, &IsOurs);
}

void CGuestDescriptors::Close() noexcept {
    const bool intact = AreOurs();
    for (std::size_t i = 0; i < m_nEntries; ++i) {
        const Entry& entry = m_Entries[i];
        if (intact || (entry.unique && IsOurs(entry))) {
            close(entry.fd);
        }
    }
    m_nEntries = 0;
}
