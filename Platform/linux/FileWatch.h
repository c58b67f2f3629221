// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_PLATFORM_FILEWATCH_H
#define TALLYRA_PLATFORM_FILEWATCH_H

#include "GuestDescriptors.h"

#include <filesystem>
#include <string>

class CPlatformThread;

/// Tells when a file may have changed: replaced, written and closed, made or removed.
///
/// One inotify watch, on the file's folder or, while that does not exist, on the nearest folder
/// above it that does: there the next folder on the way appears. A file that is being written is
/// not looked at before the writer closes it. A folder further up that is moved away is not seen.
///
/// Threads: the one that waits; the constructor may run on another.
class CFileWatch {
  public:
    explicit CFileWatch(const std::string& path);

    /// Opens what is missing, of descriptors as of watches.
    /// @return whether a change from now on ends Await
    bool Open();
    /// Waits until the file may have changed, or the thread's stop is requested, or the
    /// descriptors are lost.
    /// @return false when it cannot wait for now
    bool Await(const CPlatformThread& thread) const;
    /// Ends the watch until the next Open. The descriptors stay open for that: the kernel takes
    /// 5 to 20 ms to close an inotify instance, and a player may wait for it.
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
    /// The entry of the watched folder that is, or leads to, the file.
    std::string m_strEntry;
};

#endif  // TALLYRA_PLATFORM_FILEWATCH_H
