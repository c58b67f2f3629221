// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "RemovalOnSignal.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

namespace {

/// The file to delete; an empty name before there is one.
std::array<char, PATH_MAX>& Name() {
    static std::array<char, PATH_MAX> name{};
    return name;
}

// SA_RESETHAND has restored the default action, and the signal stays blocked until this returns.
void RemoveAndDie(int signal) {
    unlink(Name().data());
    std::raise(signal);
}

}  // namespace

CRemovalOnSignal::CRemovalOnSignal() {
    sigemptyset(&m_Signals);
    struct sigaction removing {};
    removing.sa_handler = &RemoveAndDie;
    removing.sa_flags = static_cast<int>(SA_RESETHAND);
    for (std::size_t i = 0; i < kSignals.size(); ++i) {
        sigaddset(&m_Signals, kSignals[i]);
        sigaction(kSignals[i], nullptr, &m_Before[i]);
        if (m_Before[i].sa_handler != SIG_IGN) {
            sigaction(kSignals[i], &removing, nullptr);
        }
    }
}

CRemovalOnSignal::~CRemovalOnSignal() {
    for (std::size_t i = 0; i < kSignals.size(); ++i) {
        sigaction(kSignals[i], &m_Before[i], nullptr);
    }
    Name()[0] = '\0';
}

int CRemovalOnSignal::CreateTemporary(std::string& name) {
    if (name.size() >= Name().size()) {
        errno = ENAMETOOLONG;
        return -1;
    }
    sigset_t before{};
    pthread_sigmask(SIG_BLOCK, &m_Signals, &before);
    const int fd = mkostemp(name.data(), O_CLOEXEC);
    if (fd >= 0) {
        Name()[name.copy(Name().data(), name.size())] = '\0';
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return fd;
}
