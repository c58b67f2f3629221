// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SUPPORT_HOSTDESCRIPTORS_H
#define TALLYRA_TESTS_SUPPORT_HOSTDESCRIPTORS_H

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <string>
#include <utility>
#include <vector>

/// Descriptors that a host opens after it has closed every number from 3 up, so that they take the
/// numbers of the library and the platform. Each has something to read.
class CHostDescriptors {
  public:
    /// Closes all numbers from 3 up. Opens a socket, an inotify instance and an eventfd in turn
    /// until every number below `end` is taken.
    /// @param folder  the folder that the inotify instances watch; if empty, only sockets are
    /// opened
    /// @param turn    the kind that number 3 gets: 0 socket, 1 inotify, 2 eventfd
    explicit CHostDescriptors(std::string folder = "", int turn = 0, int end = 40)
        : m_strFolder(std::move(folder)), m_nEnd(end) {
        closefrom(kFirst);
        const int kinds = m_strFolder.empty() ? 1 : 3;
        for (int fd = Open(turn % kinds); fd >= kFirst && fd < end; fd = Open(++turn % kinds)) {
            m_Descriptors.push_back({fd, InodeOf(fd), 0});
        }
        for (Descriptor& descriptor : m_Descriptors) {
            descriptor.readable = Readable(descriptor.fd);
        }
    }
    CHostDescriptors(const CHostDescriptors&) = delete;
    CHostDescriptors& operator=(const CHostDescriptors&) = delete;

    /// @return whether nothing was closed, read or written
    bool AreUntouched() const {
        return !m_Descriptors.empty() &&
               std::all_of(m_Descriptors.begin(), m_Descriptors.end(), [](const Descriptor& own) {
                   return InodeOf(own.fd) == own.inode && own.readable > 0 &&
                          Readable(own.fd) == own.readable;
               });
    }

    /// Limits the process to numbers 0 to 2. @return the limit before
    static rlimit RefuseMore() {
        rlimit before{};
        getrlimit(RLIMIT_NOFILE, &before);
        const rlimit none{kFirst, before.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
        return before;
    }

  private:
    struct Descriptor {
        int fd;
        ino_t inode;
        int readable;
    };

    static constexpr int kFirst = 3;

    static ino_t InodeOf(int fd) {
        struct stat status {};
        return fstat(fd, &status) == 0 ? status.st_ino : 0;
    }

    /// @return the number of bytes to read; for an eventfd, which has no such count, 0 or 1
    static int Readable(int fd) {
        int bytes = 0;
        pollfd one{fd, POLLIN, 0};
        return ioctl(fd, FIONREAD, &bytes) == 0 ? bytes : poll(&one, 1, 0);
    }

    int Open(int kind) {
        return kind == 0 ? OpenSocket() : kind == 1 ? OpenInotify() : eventfd(1, EFD_NONBLOCK);
    }

    // The peer gets a number outside the range, and a byte too: it sees what is written here.
    int OpenSocket() {
        std::array<int, 2> fds{-1, -1};
        socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds.data());
        const int peer = fcntl(fds[1], F_DUPFD, m_nEnd);
        close(fds[1]);
        if (write(peer, "x", 1) != 1 || write(fds[0], "x", 1) != 1) {
            return -1;
        }
        m_Descriptors.push_back({peer, InodeOf(peer), 0});
        return fds[0];
    }

    int OpenInotify() const {
        const int fd = inotify_init1(IN_NONBLOCK);
        inotify_add_watch(fd, m_strFolder.c_str(), IN_ATTRIB);
        return utimensat(AT_FDCWD, m_strFolder.c_str(), nullptr, 0) == 0 ? fd : -1;
    }

    const std::string m_strFolder;
    const int m_nEnd;
    std::vector<Descriptor> m_Descriptors;
};

#endif  // TALLYRA_TESTS_SUPPORT_HOSTDESCRIPTORS_H
