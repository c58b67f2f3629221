// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYLogReader.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <fstream>

// Problem: a process that stays in a read transaction keeps the log from being emptied, and the
// operator needs to know which process that is.
//
// Idea: a reader holds a shared lock on one of five bytes of the log's index, one for each state
// that can be read at the same time. The kernel tells the owner of a lock to anybody who asks
// (F_GETLK). Next to the locks, the index has the last frame of the log that each of these states
// includes: the locked state with the smallest frame is the one that keeps the log.
//
// Always true:
// - Asking takes no lock and delays nobody.
// - The kernel does not report locks of this process, so the service never names itself.

namespace {

// The layout of the index: two headers of 48 bytes, the number of frames that were copied to the
// database, the last frame of each state, and the bytes that are locked.
constexpr off_t kFrames = 100;
constexpr off_t kReaderLocks = 123;
constexpr int kStates = 5;

std::string Describe(pid_t pid) {
    std::string name;
    std::ifstream file("/proc/" + std::to_string(pid) + "/comm");
    std::getline(file, name);
    std::replace_if(
        name.begin(), name.end(), [](unsigned char c) { return c < ' ' || c > '~'; }, '?');
    return "process " + std::to_string(pid) + (name.empty() ? "" : " (" + name + ")");
}

// Returns 0 if no other process holds the lock.
pid_t OwnerOf(int fd, off_t byte) {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = byte;
    lock.l_len = 1;
    return fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK ? lock.l_pid : 0;
}

}  // namespace

CTYLogReader::~CTYLogReader() {
    if (m_nFd >= 0) {
        close(m_nFd);
    }
}

std::string CTYLogReader::Find() {
    if (m_nFd < 0) {
        m_nFd = open(m_strIndex.c_str(), O_RDONLY | O_CLOEXEC);
    }
    std::array<std::uint32_t, kStates> frames{};
    if (m_nFd < 0 || pread(m_nFd, frames.data(), sizeof(frames), kFrames) != sizeof(frames)) {
        return "";
    }
    pid_t oldest = 0;
    std::uint32_t least = UINT32_MAX;
    for (int i = 0; i < kStates; ++i) {
        const pid_t owner = OwnerOf(m_nFd, kReaderLocks + i);
        if (owner > 0 && frames.at(static_cast<std::size_t>(i)) <= least) {
            oldest = owner;
            least = frames.at(static_cast<std::size_t>(i));
        }
    }
    return oldest > 0 ? Describe(oldest) : "";
}
