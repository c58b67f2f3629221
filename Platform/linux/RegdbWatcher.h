// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_PLATFORM_REGDBWATCHER_H
#define TALLYRA_PLATFORM_REGDBWATCHER_H

#include "FileWatch.h"
#include "PlatformThread.h"
#include "RegdbStore.h"

#include "regdb.h"

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

/// Watches the store's file and calls those that watch a key of it.
///
/// Its thread reads the file and runs the callbacks, from the first registration until the last one
/// is removed. While the system gives no descriptors or no file watch, the thread looks at the file
/// once a second instead; while the file cannot be opened for lack of descriptors, the keys count
/// as unchanged.
///
/// Threads: any. The control mutex keeps starting and stopping the thread apart; what stands under
/// it is the thread's own while that runs. The mutex guards the registrations and is not held while
/// a callback runs.
class CRegdbWatcher {
  public:
    CRegdbWatcher() = default;

    /// @return the watcher of this process
    static CRegdbWatcher& Instance();

    /// @return a code of regdb_error
    int Add(const std::string& key, regdb_key_changed_cb pCallback, void* pUserData);
    /// Removes all registrations of the two, and waits until none of them runs, unless it is called
    /// from a callback.
    /// @return a code of regdb_error
    int Remove(const std::string& key, regdb_key_changed_cb pCallback);

  private:
    struct Registration {
        std::string key;
        regdb_key_changed_cb pCallback;
        void* pUserData;
        std::optional<std::string> text;
        bool removed = false;
    };
    using Registrations = std::vector<std::shared_ptr<Registration>>;

    bool Start();
    void Stop();
    void Run();
    bool Look();
    bool CheckAll();
    bool Check(Registration& registration);
    bool TakeChange(Registration& registration, std::optional<std::string> text);
    void Call(const Registration& registration, _keynode_t& node) noexcept;
    bool HasRegistrations();

    std::mutex m_ControlMutex;
    std::optional<CRegdbStore> m_Store;
    std::optional<CFileWatch> m_Watch;
    bool m_bWatching = false;
    CPlatformThread m_Thread;

    std::mutex m_Mutex;
    std::condition_variable m_Returned;
    Registrations m_Registrations;
    const Registration* m_pRunning = nullptr;
};

#endif  // TALLYRA_PLATFORM_REGDBWATCHER_H
