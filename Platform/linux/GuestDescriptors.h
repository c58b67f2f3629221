// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_PLATFORM_GUESTDESCRIPTORS_H
#define TALLYRA_PLATFORM_GUESTDESCRIPTORS_H

#include <sys/types.h>

#include <array>
#include <cstddef>

/// A group of long-lived descriptors. The host may close any of them at any time, and may then get
/// the same number for a file of its own. GuestDescriptors.cpp explains how the group detects that.
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
    /// Closes the descriptors that certainly belong to this group, and forgets the others.
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

    // Not on the heap: a watch must be able to continue and to end when no memory is left.
    std::array<Entry, kMax> m_Entries{};
    std::size_t m_nEntries = 0;
};

#endif  // TALLYRA_PLATFORM_GUESTDESCRIPTORS_H
