// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Peers.h"

// Do not add the source location to each entry.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace {

constexpr const char* kSocketPath = "/run/systemd/journal/socket";
constexpr std::size_t kRoom = 65536;

/// @return a socket bound to the journal's path, or -1 with `errno`
int BindSocket() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, kSocketPath, sizeof(address.sun_path) - 1);
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        const int error = errno;
        close(fd);
        errno = error;
        return -1;
    }
    return fd;
}

class CJournalPeer : public IPeer {
  public:
    explicit CJournalPeer(int fd) : m_nFd(fd), m_Thread([this] { Read(); }) {}
    ~CJournalPeer() override {
        shutdown(m_nFd, SHUT_RD);
        m_Thread.join();
        close(m_nFd);
        unlink(kSocketPath);
    }

    void Send() override {
        sd_journal_send("PRIORITY=6", "MESSAGE=%s", m_strText.c_str(), nullptr);
        ++m_nSent;
    }

  private:
    void Read() {
        std::array<char, kRoom> datagram{};
        ssize_t bytes = 0;
        while ((bytes = recv(m_nFd, datagram.data(), datagram.size(), 0)) > 0) {
            m_nTaken += bytes > kImageBytes ? 1 : 0;
        }
    }

    const int m_nFd;
    const std::string m_strText = std::string(kImageBytes, 'x');
    std::thread m_Thread;
};

}  // namespace

std::unique_ptr<IPeer> MakeJournalPeer(std::string* pReason) {
    const int fd = BindSocket();
    if (fd < 0) {
        *pReason = errno == EADDRINUSE ? "this machine's own journal is there"
                                       : std::string("no socket for it: ") + std::strerror(errno);
        return nullptr;
    }
    return std::make_unique<CJournalPeer>(fd);
}
