// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "StandardError.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <initializer_list>

// Standard error belongs to the host. If it is a pipe that no process reads, a plain write blocks
// the caller forever. If the pipe's reader has exited, a write kills the host with SIGPIPE. Setting
// O_NONBLOCK does not help: that flag is part of the file description, so it would change standard
// error for every process that shares it. So each kind of file is written in its own way:
//
// - A pipe or terminal is opened a second time through /proc, non-blocking, and closed after the
//   line. A second descriptor that stayed open would keep the pipe's reader from seeing the end of
//   the file when the host closes its own.
// - If no descriptor is left for that, the line is written only if poll reports room. Then the
//   caller can block only if another writer fills that room between poll and write.
// - A socket takes flags per call: MSG_DONTWAIT and MSG_NOSIGNAL.
// - A regular file never blocks, but may raise SIGXFSZ.
//
// What must always hold: the host's file description keeps its flags. A signal that a write raises
// is removed, unless the same signal was pending before.

namespace {

sigset_t Signals(std::initializer_list<int> signals) {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : signals) {
        sigaddset(&set, signal);
    }
    return set;
}

/// Blocks the signals that a write may raise on this thread.
class CWriteSignals {
  public:
    // SIGTTOU stops a background process that writes to its terminal.
    CWriteSignals() {
        const sigset_t blocked = Signals({SIGPIPE, SIGXFSZ, SIGTTOU});
        pthread_sigmask(SIG_BLOCK, &blocked, &m_Before);
        sigpending(&m_Pending);
    }
    ~CWriteSignals() { pthread_sigmask(SIG_SETMASK, &m_Before, nullptr); }
    CWriteSignals(const CWriteSignals&) = delete;
    CWriteSignals& operator=(const CWriteSignals&) = delete;

    /// Removes a pending signal, unless it was pending before the write.
    void Discard(int signal) const {
        if (sigismember(&m_Pending, signal) == 0) {
            const sigset_t raised = Signals({signal});
            const timespec now{};
            sigtimedwait(&raised, nullptr, &now);
        }
    }

  private:
    sigset_t m_Before;
    sigset_t m_Pending;
};

int Write(int fd, std::string_view line) {
    const CWriteSignals signals;
    if (write(fd, line.data(), line.size()) >= 0) {
        return 0;
    }
    const int error = errno;
    if (error == EPIPE) {
        signals.Discard(SIGPIPE);
    } else if (error == EFBIG) {
        signals.Discard(SIGXFSZ);
    }
    return -error;
}

int WriteIfPollReportsRoom(std::string_view line) {
    pollfd standardError{STDERR_FILENO, POLLOUT, 0};
    const int ready = poll(&standardError, 1, 0);
    if (ready <= 0) {
        return ready < 0 ? -errno : -EAGAIN;
    }
    return Write(STDERR_FILENO, line);
}

// Opening a pipe that has no reader fails with ENXIO.
int WriteWithoutBlocking(std::string_view line) {
    const int ownFd = open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (ownFd < 0) {
        return errno == ENXIO ? -EPIPE : WriteIfPollReportsRoom(line);
    }
    const int result = Write(ownFd, line);
    close(ownFd);
    return result;
}

int Send(std::string_view line) {
    return send(STDERR_FILENO, line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0 ? 0
                                                                                           : -errno;
}

}  // namespace

int WriteToStandardError(std::string_view line) {
    struct stat status {};
    if (fstat(STDERR_FILENO, &status) != 0) {
        return -errno;
    }
    if (S_ISSOCK(status.st_mode)) {
        return Send(line);
    }
    if (S_ISFIFO(status.st_mode) || (S_ISCHR(status.st_mode) && isatty(STDERR_FILENO) == 1)) {
        return WriteWithoutBlocking(line);
    }
    return Write(STDERR_FILENO, line);
}
