// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Peers.h"

// Do not add the source location to each entry.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-journal.h>

#include <cstring>

namespace {

constexpr sockaddr_un kAddress = {AF_UNIX, "/run/systemd/journal/socket"};

class CJournalPeer : public IPeer {
  public:
    explicit CJournalPeer(int fd) : m_nFd(fd) {}
    ~CJournalPeer() override {
        shutdown(m_nFd, SHUT_RD);
        m_Thread.join();
        close(m_nFd);
        unlink(kAddress.sun_path);
    }

    void Send() override {
        sd_journal_send("PRIORITY=6", "MESSAGE=%s", m_strRecord.c_str(), nullptr);
        ++m_nSent;
    }

  private:
    void Read() {
        std::array<char, 65536> datagram{};
        ssize_t bytes = 0;
        while ((bytes = recv(m_nFd, datagram.data(), datagram.size(), 0)) > 0) {
            m_nTaken += bytes > kImageBytes ? 1 : 0;
        }
    }

    const int m_nFd;
    std::thread m_Thread{[this] { Read(); }};
};

}  // namespace

std::unique_ptr<IPeer> MakeJournalPeer(std::string* pReason) {
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&kAddress), sizeof(kAddress)) != 0) {
        *pReason = std::string("no socket for the journal: ") + std::strerror(errno);
        close(fd);
        return nullptr;
    }
    return std::make_unique<CJournalPeer>(fd);
}
