// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Attack.h"

#include "logsvc.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <vector>

namespace {

constexpr int kFirst = 3;
constexpr int kLast = 255;

void CloseAll() {
    for (int fd = kFirst; fd <= kLast; ++fd) {
        close(fd);
    }
}

/// Sockets of the host's that have every free number, and a byte waiting in each.
class CHostSockets {
  public:
    CHostSockets() {
        std::array<int, 2> pair{};
        while (socketpair(AF_UNIX, SOCK_STREAM, 0, pair.data()) == 0 && pair[1] < kLast) {
            m_Sockets.insert(m_Sockets.end(), pair.begin(), pair.end());
        }
        for (const int socket : m_Sockets) {
            static_cast<void>(write(socket, "x", 1));
        }
    }

    /// @return whether each still has its one byte: nothing was read, written or closed
    bool AreUntouched() const {
        for (const int socket : m_Sockets) {
            int waiting = -1;
            if (ioctl(socket, FIONREAD, &waiting) != 0 || waiting != 1) {
                return false;
            }
        }
        return !m_Sockets.empty();
    }

  private:
    std::vector<int> m_Sockets;
};

}  // namespace

int MayCloseAllDescriptors() {
    Collector collector = CollectorThatCollects();
    CloseAll();
    Play(*collector);
    const bool failed = Holds(AwaitLog("SendData failed, data clear"), "the batch fails");
    return DeletesInTime(std::move(collector)) && failed ? 0 : 1;
}

int MayReuseTheNumbersOfClosedDescriptors() {
    Collector collector = CollectorThatCollects();
    CloseAll();
    const CHostSockets sockets;
    Play(*collector);
    bool ok = Holds(AwaitLog("SendData failed, data clear"), "the batch fails");
    ok = Holds(sockets.AreUntouched(), "the host's sockets are untouched by the sender") && ok;
    ok = DeletesInTime(std::move(collector)) && ok;
    return Holds(sockets.AreUntouched(), "the host's sockets are untouched at the end") && ok ? 0
                                                                                              : 1;
}

// The test has the service appear when it reads a byte from `readyFd`.
int MayUseUpAllDescriptors(int readyFd) {
    const rlimit few{64, 64};
    setrlimit(RLIMIT_NOFILE, &few);
    std::atomic<std::size_t> errors{0};
    g_OnLog = [&errors](const std::string& text) {
        if (text == "service is connected!") {
            errors = CountLog(LOGSVC_ERROR);
        }
    };
    Collector collector = MakeCollector();
    Play(*collector, 5);
    bool ok = Holds(AwaitLog("IsConnected returns 0"), "there is no service yet");
    std::vector<int> taken;
    for (int fd = dup(0); fd >= 0; fd = dup(0)) {
        taken.push_back(fd);
    }
    static_cast<void>(write(readyFd, "x", 1));
    ok = Holds(AwaitLog("Analyzer thread finished"), "collection stays off") && ok;
    ok = Holds(AwaitLog("drop collected data"), "what waited is dropped") && ok;
    // The key that cannot be read, and what is dropped for that.
    ok = Holds(CountLog(LOGSVC_ERROR) == errors + 2, "one error line tells why") && ok;
    for (const int fd : taken) {
        close(fd);
    }
    ok = Holds(AwaitLog("m_isDataCollectOn : [1]"), "the watch on the key is made up for") && ok;
    return DeletesInTime(std::move(collector)) && ok ? 0 : 1;
}
