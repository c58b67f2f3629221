// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SUPPORT_PLATFORMDOUBLE_H
#define TALLYRA_TESTS_SUPPORT_PLATFORMDOUBLE_H

#include "connection.h"
#include "logsvc.h"
#include "regdb.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

/// A log line, split into its parts.
struct PlatformLogLine {
    int priority;
    std::string tag;
    std::string file;
    std::string function;
    int line;
    std::string text;
    int buffer;
};

/// The results of the platform calls. By default everything works: key 1, version "1.2.3",
/// Ethernet, a gateway. `...Result` is the return value of a call, `...Null` leaves its output
/// unset.
struct PlatformAnswers {
    /// What regdb_ignore_key_changed removes if a callback was registered several times.
    enum class Ignore { ALL, OLDEST };

    int keyResult = 0;
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
    /// The name of one call that returns -1, whatever its own result is set to.
    std::string failing;
    /// Writes every log line to standard error too, as "priority tag text", for a test whose
    /// process ends.
    bool echo = false;
    /// Called with each log line before it is kept, on the thread that logs it.
    std::function<void(const PlatformLogLine&)> onLog;
    /// Called with the name of each platform call except the log's, before it does anything, on the
    /// calling thread.
    std::function<void(const char*)> onCall;
    /// Whether log lines and names of calls are kept. Long tests would fill the memory.
    bool keep = true;
    /// The number of bytes after which a kept log line is cut.
    std::size_t longestLine = std::string::npos;
};

/// A platform for tests, linked in place of a real one. Every call can be made to fail and every
/// callback to run, and all log lines are kept.
///
/// There is one instance per process. Set it up before the code under test runs. The log and the
/// journal of calls may be read at any time, on any thread.
class CPlatformDouble : public PlatformAnswers {
  public:
    using LogLine = PlatformLogLine;

    static CPlatformDouble& Instance();

    /// Restores the default answers, and forgets the log, the journal and all registrations.
    void Reset();

    std::atomic<int> keyValue = 1;
    /// Whether log lines are discarded at once. The lock of the log orders threads that nothing
    /// else orders, and would hide a race from ThreadSanitizer.
    std::atomic<bool> mute = false;

    /// For tests in which memory runs out: from here on, no call allocates. Log lines are formatted
    /// on the stack and written to standard error as "priority tag text"; nothing is kept.
    /// @param pOnLine  called with each line, on the thread that logs it
    void StopAllocating(void (*pOnLine)(const char* line));
    bool Allocates() const { return m_pOnLine == nullptr; }

    /// Sets the key and calls FireKeyChanged.
    void ChangeKey(int value) {
        keyValue = value;
        FireKeyChanged();
    }
    /// Calls the watchers of the key on a new thread, and returns after them. A platform that does
    /// not allocate calls them on the calling thread.
    void FireKeyChanged();
    /// Calls the watchers of the key with null as user data.
    void FireKeyChangedWithoutData() {
        for (const Watcher& watcher : Copy(m_Watchers)) {
            watcher.callback(nullptr, nullptr);
        }
    }
    /// Reports a network state to every monitor on a new thread, and returns after them.
    void FireNetwork(int result, const char* name);
    /// @return the number of registrations for the key
    std::size_t KeyWatchers() { return Copy(m_Watchers).size(); }
    /// @return the number of network monitors
    std::size_t NetworkMonitors() { return Copy(m_Monitors).size(); }

    /// @return the names of the platform calls so far, without those of the log
    std::deque<std::string> Journal() { return Copy(m_Journal); }
    /// @return the number of calls with that name
    std::size_t Calls(const std::string& name) {
        return static_cast<std::size_t>(std::ranges::count(Journal(), name));
    }

    /// @return the application that was looked up last
    std::string AskedApp() { return Copy(m_strAskedApp); }

    std::deque<LogLine> Log() { return Copy(m_Log); }
    /// @return the number of lines with this priority, tag and text
    std::size_t CountLog(int priority, const std::string& tag, const std::string& text);
    /// @return the number of lines with this text
    std::size_t CountLog(const std::string& text) {
        return static_cast<std::size_t>(std::ranges::count(Log(), text, &LogLine::text));
    }
    /// @return whether `count` lines with this text came in time
    bool WaitForLog(const std::string& text, std::size_t count = 1,
                    std::chrono::milliseconds time = std::chrono::seconds(30));
    void ClearLog() {
        const std::lock_guard lock(m_Mutex);
        m_Log.clear();
    }

    // The platform's functions call what follows.

    /// Notes a call. @return its result: -1 if it is the failing one
    int Begin(const char* name, int result = 0);
    void NoteApp(const char* appId) {
        const std::lock_guard lock(m_Mutex);
        m_strAskedApp = appId;
    }
    void KeepLog(LogLine line);
    void WriteLog(const char* line) { m_pOnLine(line); }
    struct Watcher {
        void (*callback)(struct _keynode_t*, void*);
        void* data;
    };
    struct Monitor {
        connection_h handle;
        void (*callback)(connection_error_e, char*, void*);
        void* data;
    };
    void AddWatcher(const Watcher& watcher) {
        const std::lock_guard lock(m_Mutex);
        m_Watchers.push_back(watcher);
    }
    int RemoveWatcher(const Watcher& watcher);
    void AddMonitor(const Monitor& monitor) {
        const std::lock_guard lock(m_Mutex);
        m_Monitors.push_back(monitor);
    }
    void RemoveMonitor(connection_h handle);

  private:
    CPlatformDouble() = default;
    void CallWatchers() noexcept;
    template <class Value>
    Value Copy(const Value& value) {
        const std::lock_guard lock(m_Mutex);
        return value;
    }

    void (*m_pOnLine)(const char* line) = nullptr;

    std::mutex m_Mutex;
    std::condition_variable m_Logged;
    // Deques, because a growing vector needs twice its memory for a moment.
    std::deque<LogLine> m_Log;
    std::deque<std::string> m_Journal;
    std::string m_strAskedApp;
    std::vector<Watcher> m_Watchers;
    std::vector<Monitor> m_Monitors;

    // Held while callbacks run and while registrations are removed, as the platform promises. Two,
    // so that settings and network do not wait for each other.
    std::recursive_mutex m_CallbackMutex;
    std::recursive_mutex m_NetworkMutex;
};

#endif  // TALLYRA_TESTS_SUPPORT_PLATFORMDOUBLE_H
