// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_PLATFORM_GUESTDESCRIPTORS_H
#define TALLYRA_PLATFORM_GUESTDESCRIPTORS_H

#include <sys/types.h>

#include <array>
#include <cstddef>

/// A group of long-lived descriptors in a process whose host may close any number at any time, and
/// reuse it for a file of its own. GuestDescriptors.cpp explains how the group recognises its own.
///
/// Threads: one at a time.
class CGuestDescriptors {
  public:
    CGuestDescriptors() = default;
    ~CGuestDescriptors() { Close(); }
    CGuestDescriptors(const CGuestDescriptors&) = delete;
    CGuestDescriptors& operator=(const CGuestDescriptors&) = delete;

    /// Takes ownership of a descriptor that was just opened.
    /// @return false for a negative number, or when the group is full
    bool Add(int fd) noexcept;
    /// @return the descriptor that was added with this index
    int At(std::size_t index) const { return m_Entries[index].fd; }
    /// @return whether each number still refers to the file that was added; true for an empty group
    bool AreOurs() const noexcept;
    bool IsEmpty() const { return m_nEntries == 0; }
    /// Closes the descriptors that are certainly this group's own, and forgets the others.
    void Close() noexcept;

    static constexpr std::size_t kMax = 2;

  private:
    /// The target of the link in /proc/self/fd, as "anon_inode:inotify"; empty without /proc.
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

    // No heap: a watch must continue, and end, without memory.
    std::array<Entry, kMax> m_Entries{};
    std::size_t m_nEntries = 0;
};

#endif  // TALLYRA_PLATFORM_GUESTDESCRIPTORS_H
