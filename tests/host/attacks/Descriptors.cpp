// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Attack.h"

#include "HostDescriptors.h"

#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <vector>

int MayCloseAllDescriptors() {
    Collector collector = CollectorThatCollects();
    closefrom(3);
    StartPlayback(*collector);
    const bool failed = Holds(AwaitLog("SendData failed, data clear"), "the batch fails");
    return DeletesInTime(std::move(collector)) && failed ? 0 : 1;
}

int MayReuseTheNumbersOfClosedDescriptors() {
    constexpr int kNumbers = 255;
    Collector collector = CollectorThatCollects();
    const CHostDescriptors sockets("", 0, kNumbers);
    StartPlayback(*collector);
    bool ok = Holds(AwaitLog("SendData failed, data clear"), "the batch fails");
    ok = Holds(sockets.AreUntouched(), "the sender does not touch the host's sockets") && ok;
    ok = DeletesInTime(std::move(collector)) && ok;
    return Holds(sockets.AreUntouched(), "deletion does not touch the host's sockets") && ok ? 0
                                                                                             : 1;
}

// The test starts the service when it reads a byte from `readyFd`.
int MayUseUpAllDescriptors(int readyFd) {
    const rlimit few{64, 64};
    setrlimit(RLIMIT_NOFILE, &few);
    std::atomic<std::size_t> errors{0};
    CPlatformDouble::Instance().onLog = [&errors](const PlatformLogLine& line) {
        if (line.text == "service is connected!") {
            errors = CountErrors();
        }
    };
    Collector collector = MakeCollector();
    StartPlayback(*collector, 5);
    bool ok = Holds(AwaitLog("IsConnected returns 0"), "the service is not up yet");
    std::vector<int> taken;
    for (int fd = dup(0); fd >= 0; fd = dup(0)) {
        taken.push_back(fd);
    }
    static_cast<void>(write(readyFd, "x", 1));
    ok = Holds(AwaitLog("Analyzer thread finished"), "collection stays off") && ok;
    ok = Holds(AwaitLog("drop collected data"), "queued records are dropped") && ok;
    // One line for the key that cannot be read, one for the dropped records.
    ok = Holds(CountErrors() == errors + 2, "one error line gives the reason") && ok;
    for (const int fd : taken) {
        close(fd);
    }
    ok = Holds(AwaitLog("m_isDataCollectOn : [1]"),
               "the key is watched once descriptors are free") &&
         ok;
    return DeletesInTime(std::move(collector)) && ok ? 0 : 1;
}
