// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "GuestDescriptors.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>

namespace {

/// @return what /proc says that a number names, as in "anon_inode:inotify"; empty without /proc
std::string KindOf(int fd) {
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    std::array<char, 128> kind;
    const ssize_t length = readlink(link.c_str(), kind.data(), kind.size());
    return {kind.data(), length > 0 ? static_cast<std::size_t>(length) : 0};
}

}  // namespace

bool CGuestDescriptors::Add(int fd) {
    struct stat status {};
    if (fd < 0 || fstat(fd, &status) != 0) {
        return false;
    }
    const bool unique = S_ISSOCK(status.st_mode) || S_ISFIFO(status.st_mode);
    m_Entries.push_back({fd, status.st_dev, status.st_ino, unique, KindOf(fd)});
    return true;
}

bool CGuestDescriptors::IsOurs(const Entry& entry) {
    struct stat status {};
    return fstat(entry.fd, &status) == 0 && status.st_dev == entry.device &&
           status.st_ino == entry.inode && KindOf(entry.fd) == entry.kind;
}

bool CGuestDescriptors::AreOurs() const {
    return std::all_of(m_Entries.begin(), m_Entries.end(), &IsOurs);
}

void CGuestDescriptors::Close() {
    const bool trusted = AreOurs();
    for (const Entry& entry : m_Entries) {
        if (trusted || (entry.unique && IsOurs(entry))) {
            close(entry.fd);
        }
    }
    m_Entries.clear();
}
