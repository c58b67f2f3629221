// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_PLATFORM_HOSTSDESCRIPTORS_H
#define TALLYRA_TESTS_PLATFORM_HOSTSDESCRIPTORS_H

#include <sys/types.h>

#include <string>
#include <vector>

/// What a host opens under the numbers 3 to 39 after it has closed all of them: sockets, inotify
/// instances and eventfds by turns, each with something to read.
class CHostsDescriptors {
  public:
    /// @param turn    0 to 2: the kind that the first number gets
    /// @param folder  what the inotify instances watch
    CHostsDescriptors(int turn, std::string folder);
    ~CHostsDescriptors() = default;
    CHostsDescriptors(const CHostsDescriptors&) = delete;
    CHostsDescriptors& operator=(const CHostsDescriptors&) = delete;

    /// @return whether all are open, with all that there was to read
    bool AreUntouched() const;

  private:
    struct Descriptor {
        int fd;
        ino_t inode;
        int readable;
    };

    int Open(int kind) const;

    const std::string m_strFolder;
    std::vector<Descriptor> m_Descriptors;
};

#endif  // TALLYRA_TESTS_PLATFORM_HOSTSDESCRIPTORS_H
