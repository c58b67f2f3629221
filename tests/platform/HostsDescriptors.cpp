// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "HostsDescriptors.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <utility>

namespace {

constexpr int kFirst = 3;
constexpr int kEnd = 40;
constexpr int kKinds = 3;

int OpenSocket() {
    std::array<int, 2> fds{-1, -1};
    socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds.data());
    // The other end stays out of the range.
    const int other = fcntl(fds[1], F_DUPFD, kEnd);
    close(fds[1]);
    return write(other, "x", 1) == 1 ? fds[0] : -1;
}

int OpenInotify(const std::string& folder) {
    const int fd = inotify_init1(IN_NONBLOCK);
    inotify_add_watch(fd, folder.c_str(), IN_ATTRIB);
    return utimensat(AT_FDCWD, folder.c_str(), nullptr, 0) == 0 ? fd : -1;
}

ino_t InodeOf(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 ? status.st_ino : 0;
}

/// @return the bytes to read; for an eventfd, which does not tell, whether it has a value
int Readable(int fd) {
    int bytes = 0;
    if (ioctl(fd, FIONREAD, &bytes) == 0) {
        return bytes;
    }
    pollfd one{fd, POLLIN, 0};
    return poll(&one, 1, 0);
}

}  // namespace

CHostsDescriptors::CHostsDescriptors(int turn, std::string folder)
    : m_strFolder(std::move(folder)) {
    for (int fd = Open(turn % kKinds); fd >= kFirst && fd < kEnd; fd = Open(++turn % kKinds)) {
        m_Descriptors.push_back({fd, InodeOf(fd), 0});
    }
    for (Descriptor& descriptor : m_Descriptors) {
        descriptor.readable = Readable(descriptor.fd);
    }
}

int CHostsDescriptors::Open(int kind) const {
    switch (kind) {
        case 0:
            return OpenSocket();
        case 1:
            return OpenInotify(m_strFolder);
        default:
            return eventfd(1, EFD_NONBLOCK);
    }
}

bool CHostsDescriptors::AreUntouched() const {
    const auto untouched = [](const Descriptor& descriptor) {
        return InodeOf(descriptor.fd) == descriptor.inode && descriptor.readable > 0 &&
               Readable(descriptor.fd) == descriptor.readable;
    };
    return !m_Descriptors.empty() &&
           std::all_of(m_Descriptors.begin(), m_Descriptors.end(), untouched);
}
