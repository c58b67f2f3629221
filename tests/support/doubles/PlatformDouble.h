// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SUPPORT_PLATFORMDOUBLE_H
#define TALLYRA_TESTS_SUPPORT_PLATFORMDOUBLE_H

#include "connection.h"
#include "logsvc.h"
#include "regdb.h"

#include <sys/types.h>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

/// A platform that tests link in place of a real one: every call can be made to fail, every
/// callback to fire, and everything that is logged is kept.
///
/// There is one, as there is one platform. Set it up before the code under test runs; the log and
/// the journal may be read at any time, from any thread.
class CPlatformDouble {
  public:
    /// One log line, taken apart.
    struct LogLine {
        int priority;
        std::string tag;
        std::string file;
        std::string function;
        int line;
        std::string text;
        int buffer;
    };

    /// What regdb_ignore_key_changed removes when a callback was registered several times.
    enum class Ignore { ALL, OLDEST };

    /// What the package look-up was last asked for.
    struct Asked {
        std::string appId;
        uid_t uid = 0;
        std::string pkgId;
    };

    static CPlatformDouble& Instance();

    /// Back to a platform on which everything works: key 1, version "1.2.3", Ethernet, a gateway.
    void Reset();

    // What the platform answers. `...Result` is the code that the call returns.
    int keyResult = 0;
    std::atomic<int> keyValue = 1;
    int notifyResult = 0;
    int ignoreResult = 0;
    Ignore ignore = Ignore::ALL;
    int appInfoResult = 0;
    bool appInfoNull = false;
    int pkgIdResult = 0;
    bool pkgIdNull = false;
    int pkgInfoResult = 0;
    bool pkgInfoNull = false;
    int versionResult = 0;
    bool versionNull = false;
    std::string version = "1.2.3";
    int connectionCreateResult = 0;
    int connectionDestroyResult = 0;
    int monitorResult = 0;
    int connectionTypeResult = 0;
    int connectionType = CONNECTION_TYPE_ETHERNET;
    int gatewayResult = 0;
    bool gatewayConnected = true;
    int wifiResult = 0;
    bool wifiNull = false;
    int apResult = 0;
    bool apNull = false;
    int rssiResult = 0;
    int rssi = -55;
    /// The name of a call that fails, of those whose result nobody needs: what gives something
    /// back, and the log.
    std::string unheeded;
    /// Has every log line written to standard error as "priority tag text" too, for a test whose
    /// process ends.
    bool echo = false;
    /// Has log lines neither made nor kept: the lock behind them orders threads that nothing else
    /// orders, and would hide a race.
    std::atomic<bool> mute = false;
    /// Called with each log line before it is kept, on the thread that logs it.
    std::function<void(const LogLine&)> onLog;
    /// Called at the beginning of each platform call but the log's, with its name, on the thread
    /// that makes it.
    std::function<void(const char*)> onCall;
    /// Whether log lines and names of calls are kept; what runs for long would fill the memory.
    bool keep = true;

    /// Sets the key and calls those who watch it, on a thread of the platform. Returns when all
    /// have returned.
    void ChangeKey(int value);
    /// Calls those who watch the key, on a thread of the platform.
    void FireKeyChanged();
    /// Calls those who watch the key without the data that they registered.
    void FireKeyChangedWithoutData();
    /// Reports a network state to every monitor, on a thread of the platform.
    void FireNetwork(int result, const char* name);
    /// @return how many registrations for the key there are
    std::size_t KeyWatchers();
    /// @return how many network monitors there are
    std::size_t NetworkMonitors();

    /// @return the names of the platform calls so far, without those of the log
    std::vector<std::string> Journal();
    /// @return how often a platform call was made
    std::size_t Calls(const std::string& name);

    Asked LastAsked();

    std::vector<LogLine> Log();
    /// @return how many lines have this priority, tag and text
    std::size_t CountLog(int priority, const std::string& tag, const std::string& text);
    /// @return how many lines have this text
    std::size_t CountLog(const std::string& text);
    /// @return whether there were `count` lines with this text before the time was over
    bool WaitForLog(const std::string& text, std::size_t count = 1,
                    std::chrono::milliseconds time = std::chrono::seconds(30));
    void ClearLog();

    // What the platform's functions call.
    int Unheeded(const char* name) const { return unheeded == name ? -1 : 0; }
    void Note(const char* name);
    void NoteApp(const char* appId, uid_t uid);
    void NotePackage(const char* pkgId);
    void KeepLog(LogLine line);
    struct Watcher {
        std::string key;
        void (*callback)(struct _keynode_t*, void*);
        void* data;
        bool operator==(const Watcher&) const = default;
    };
    struct Monitor {
        connection_h handle;
        void (*callback)(connection_error_e, char*, void*);
        void* data;
    };
    void AddWatcher(const Watcher& watcher);
    int RemoveWatcher(const Watcher& watcher);
    void AddMonitor(const Monitor& monitor);
    void RemoveMonitor(connection_h handle);

  private:
    CPlatformDouble() = default;

    std::mutex m_Mutex;
    std::condition_variable m_Logged;
    // Deques, which never need more memory at once than a test of its lack leaves.
    std::deque<LogLine> m_Log;
    std::deque<std::string> m_Journal;
    Asked m_Asked;
    std::vector<Watcher> m_Watchers;
    std::vector<Monitor> m_Monitors;

    // Held while callbacks run and while registrations are removed, as the platform promises. The
    // settings and the network do not wait for each other.
    std::recursive_mutex m_CallbackMutex;
    std::recursive_mutex m_NetworkMutex;
};

#endif  // TALLYRA_TESTS_SUPPORT_PLATFORMDOUBLE_H
