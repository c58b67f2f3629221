// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_PLATFORM_REGDBWATCHER_H
#define TALLYRA_PLATFORM_REGDBWATCHER_H

#include "GlibPtr.h"
#include "RegdbStore.h"

#include "regdb.h"

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

/// Watches the store's file and calls those who watch a key of it.
///
/// Life: its thread, with a main context of its own, runs from the first registration until the
/// last one is removed.
///
/// Threads: any. The control mutex keeps starting and stopping the thread apart; the mutex guards
/// the registrations and is not held while a callback runs.
class CRegdbWatcher {
  public:
    static CRegdbWatcher& Instance();
    ~CRegdbWatcher() = delete;

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

    CRegdbWatcher() = default;

    bool Start();
    void Stop();
    void Run();
    void CheckAll();
    void Check(Registration& registration);
    bool HasRegistrations();
    static bool OnWatcherThread();
    static void OnChanged(GFileMonitor*, GFile*, GFile*, GFileMonitorEvent, gpointer pWatcher);

    std::mutex m_ControlMutex;
    std::optional<CRegdbStore> m_Store;
    GlibPtr<GMainContext> m_pContext;
    GlibPtr<GMainLoop> m_pLoop;
    GObjectPtr<GFileMonitor> m_pMonitor;
    std::thread m_Thread;

    std::mutex m_Mutex;
    std::condition_variable m_Returned;
    Registrations m_Registrations;
    const Registration* m_pRunning = nullptr;
};

#endif  // TALLYRA_PLATFORM_REGDBWATCHER_H
