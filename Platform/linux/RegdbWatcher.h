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

/// Watches the store's file and calls the registered callbacks of changed keys.
///
/// Its thread reads the file and runs the callbacks. The first registration starts the thread, and
/// removing the last one joins it. If a callback removes the last one, the thread cannot join
/// itself: it keeps watching, the next registration uses it, and a later Remove on another thread
/// joins it.
///
/// While the system refuses descriptors or a file watch, the thread polls the file once a second.
/// While no descriptor is left to open the file, all keys count as unchanged.
///
/// Remove waits for a running callback of the same key. The library does not rely on that alone and
/// has a gate of its own (CTYCallbackGate), because a device brings another platform, and because
/// the gate is per collector while this wait is per key and callback.
///
/// Threads: any. The control mutex serialises starting and stopping the thread; the members below
/// it belong to the thread while it runs. The mutex guards the registrations and is not held while
/// a callback runs.
class CRegdbWatcher {
  public:
    CRegdbWatcher() = default;

    /// @return the watcher of this process
    static CRegdbWatcher& Instance();

    /// @return a code of regdb_error
    int Add(const std::string& key, regdb_key_changed_cb pCallback, void* pUserData);
    /// Removes all registrations of a callback for a key. Waits until none of them runs, except
    /// when called inside a callback.
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
    bool CheckFile();
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
