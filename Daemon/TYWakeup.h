// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYWAKEUP_H
#define TALLYRA_TYWAKEUP_H

#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <system_error>

/// Wakes a thread that waits in poll().
///
/// Threads: any thread calls Set; the one that polls calls Clear, before it looks for work.
class CTYWakeup {
  public:
    CTYWakeup() : m_nFd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
        if (m_nFd < 0) {
            throw std::system_error(errno, std::generic_category(), "eventfd");
        }
    }
    ~CTYWakeup() { close(m_nFd); }
    CTYWakeup(const CTYWakeup&) = delete;
    CTYWakeup& operator=(const CTYWakeup&) = delete;

    int Fd() const { return m_nFd; }

    void Set() {
        if (!m_bSet.exchange(true)) {
            eventfd_write(m_nFd, 1);
        }
    }
    void Clear() {
        if (m_bSet.load()) {
            eventfd_t ignored = 0;
            eventfd_read(m_nFd, &ignored);
            m_bSet = false;
        }
    }

  private:
    const int m_nFd;
    std::atomic<bool> m_bSet = false;
};

#endif  // TALLYRA_TYWAKEUP_H
