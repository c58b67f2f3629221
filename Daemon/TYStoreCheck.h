// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYSTORECHECK_H
#define TALLYRA_TYSTORECHECK_H

#include <sqlite3.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

/// Looks for damage in a database, in a thread and with a connection of its own, while the database
/// is in use. It reads the whole file, which may take long.
///
/// Threads: all functions are for one thread. The destructor interrupts the check and waits for its
/// thread, which takes some milliseconds.
class CTYStoreCheck {
  public:
    /// PAGES finds pages that are not what they should be. INDICES also compares the tables with
    /// their indices, and takes several times as long.
    enum class Depth { PAGES, INDICES };

    /// Starts the check. Without a thread, or if the file cannot be opened, it finds nothing.
    explicit CTYStoreCheck(std::string path, Depth depth = Depth::PAGES);
    ~CTYStoreCheck();
    CTYStoreCheck(const CTYStoreCheck&) = delete;
    CTYStoreCheck& operator=(const CTYStoreCheck&) = delete;

    bool IsDone() const { return m_bDone; }
    /// @return what is damaged; empty if nothing is. Call it only once IsDone.
    const std::string& Damage() const { return m_strDamage; }

  private:
    void Run();
    std::string Check();
    void Expose(sqlite3* pHandle);

    const std::string m_strPath;
    const Depth m_Depth;
    std::string m_strDamage;  ///< written by the thread before m_bDone
    std::atomic<bool> m_bStop = false;
    std::atomic<bool> m_bDone = false;
    std::mutex m_Mutex;
    std::condition_variable m_Ended;
    sqlite3* m_pHandle = nullptr;  ///< under m_Mutex; null while there is no connection
    std::thread m_Thread;
};

/// The checks of one open file, of which at most one runs at a time.
///
/// Threads: one.
class CTYStoreChecks {
  public:
    using Clock = std::chrono::steady_clock;

    void Start(const std::string& path) { m_pCheck = std::make_unique<CTYStoreCheck>(path); }
    /// Starts a check that includes the indices, unless one was started before.
    void StartThorough(const std::string& path);
    /// Starts the check that gave way, once its pause is over.
    void StartIfDue(const std::string& path, Clock::time_point now);

    bool IsRunning() const { return m_pCheck != nullptr; }
    /// @return whether a check has ended, so that Take should be called
    bool IsDone() const { return m_pCheck != nullptr && m_pCheck->IsDone(); }
    /// Ends the check that is done, if there is one.
    /// @throws CTYDatabaseError  SQLITE_CORRUPT if it has found damage
    void Take();

    /// Interrupts the check. It begins again a minute later.
    void GiveWay(Clock::time_point now);
    /// Interrupts the check.
    void Stop() { m_pCheck.reset(); }

  private:
    std::unique_ptr<CTYStoreCheck> m_pCheck;  ///< null if no check is running
    std::optional<Clock::time_point> m_Next;
    bool m_bWasThorough = false;
};

#endif  // TALLYRA_TYSTORECHECK_H
