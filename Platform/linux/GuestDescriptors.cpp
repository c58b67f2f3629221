// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "GuestDescriptors.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

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
    const bool trusted = AreOurs();
    for (std::size_t place = 0; place < m_nEntries; ++place) {
        const Entry& entry = m_Entries[place];
        if (trusted || (entry.unique && IsOurs(entry))) {
            close(entry.fd);
        }
    }
    m_nEntries = 0;
}
