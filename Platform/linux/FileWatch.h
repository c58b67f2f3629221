// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_PLATFORM_FILEWATCH_H
#define TALLYRA_PLATFORM_FILEWATCH_H

#include "GuestDescriptors.h"

#include <filesystem>
#include <string>

class CPlatformThread;

/// Waits for changes of a file: replaced, written and closed, created or removed. The file and its
/// folders need not exist. FileWatch.cpp explains how, and what it misses.
///
/// Threads: only the waiting thread uses the watch while it runs. Another thread may use it before
/// that thread starts and after it was joined.
class CFileWatch {
  public:
    explicit CFileWatch(const std::string& path);

    /// Opens missing descriptors and sets a missing watch.
    /// @return whether Await will report every change from now on
    bool Open();
    /// Waits until the file may have changed, the thread's stop is requested, or the host has
    /// closed the descriptors.
    /// @return false when poll fails; the caller then pauses and checks the file
    bool Await(const CPlatformThread& thread) const;
    /// Removes the watch until the next Open. Keeps the descriptors, because the kernel takes 5 to
    /// 20 ms to close an inotify instance and a player may be waiting for this call.
    void Unwatch();
    bool IsFor(const std::string& path) const;

  private:
    bool OpenDescriptors();
    bool WatchNearestFolder();
    bool WatchFolderOf(const std::filesystem::path& entry);
    bool ReadEvents() const;

    const std::filesystem::path m_Path;
    CGuestDescriptors m_Descriptors;
    int m_nWatch = -1;
    /// The watched entry: the name of the file, or of the first missing folder on its path.
    std::string m_strEntry;
};

#endif  // TALLYRA_PLATFORM_FILEWATCH_H
