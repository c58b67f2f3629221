// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_PLATFORM_GUESTDESCRIPTORS_H
#define TALLYRA_PLATFORM_GUESTDESCRIPTORS_H

#include <sys/types.h>

#include <array>
#include <cstddef>

/// Descriptors that are open for long in a process whose host may close any number, and open
/// something else under it, at any time.
///
/// Each number is remembered with what it named. For a socket or a pipe that is unique. inotify
/// instances all share one inode: ours cannot be told from the host's own. Hosts close whole ranges
/// of numbers, and so each group holds at least one socket: the group is trusted only while all of
/// it is there. What remains is a host that closes a number between the check and the use.
///
/// Threads: one at a time.
class CGuestDescriptors {
  public:
    CGuestDescriptors() = default;
    ~CGuestDescriptors() { Close(); }
    CGuestDescriptors(const CGuestDescriptors&) = delete;
    CGuestDescriptors& operator=(const CGuestDescriptors&) = delete;

    /// Takes a descriptor that was just opened, up to kMax of them. @return whether it is one
    bool Add(int fd) noexcept;
    /// @return the descriptor that was added at a place
    int At(std::size_t place) const { return m_Entries[place].fd; }
    /// @return whether each number still names what was added; also for no descriptors
    bool AreOurs() const noexcept;
    bool IsEmpty() const { return m_nEntries == 0; }
    /// Closes what can be told to be ours, forgets the rest.
    void Close() noexcept;

    static constexpr std::size_t kMax = 2;

  private:
    /// What /proc says that a number names, as in "anon_inode:inotify"; empty without /proc.
    using Kind = std::array<char, 64>;
    struct Entry {
        int fd;
        dev_t device;
        ino_t inode;
        bool unique;
        Kind kind;
    };

    static Kind KindOf(int fd) noexcept;
    static bool IsOurs(const Entry& entry) noexcept;

    // No heap: a watch must go on, and end, when there is no memory.
    std::array<Entry, kMax> m_Entries{};
    std::size_t m_nEntries = 0;
};

#endif  // TALLYRA_PLATFORM_GUESTDESCRIPTORS_H
