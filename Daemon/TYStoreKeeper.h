// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYSTOREKEEPER_H
#define TALLYRA_TYSTOREKEEPER_H

#include "TYAside.h"
#include "TYKeptRows.h"
#include "TYLosses.h"
#include "TYRecovery.h"
#include "TYStore.h"
#include "TYStoreCheck.h"
#include "TYStoreFile.h"
#include "TYStoreSpace.h"
#include "TYTaskLog.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// What a keeper has done since it was made.
struct TYKeeperState {
    std::int64_t stored = 0;   ///< records
    std::int64_t refused = 0;  ///< records counted as lost before they were stored
    std::int64_t bytes = 0;    ///< size of database and log
    bool isOpen = false;

    bool operator==(const TYKeeperState&) const = default;
};

/// Keeps a store usable in spite of faults of its file: a full disk, a lock, a read-only folder, a
/// damaged, moved or replaced database. An operation that fails is refused; the keeper logs one
/// line, and another when the operation works again. A damaged file is renamed, never deleted, and
/// what can be read of it is recovered.
///
/// Threads: one. While a check runs, the keeper has a second thread of its own.
class CTYStoreKeeper {
  public:
    using Clock = std::chrono::steady_clock;
    using Now = std::function<Clock::time_point()>;

    /// @param path  the database, or a symbolic link to it, which is followed when it is opened
    /// @param now    tells when to try again
    /// @param times  tells the age of records
    CTYStoreKeeper(std::string path, TYStoreLimits limits, Now now = Clock::now,
                   TYReadTimes times = SystemTimes);
    /// Writes the losses counted so far and closes the store.
    ~CTYStoreKeeper();
    CTYStoreKeeper(const CTYStoreKeeper&) = delete;
    CTYStoreKeeper& operator=(const CTYStoreKeeper&) = delete;

    /// Opens the store. Every other operation also tries to open a closed store, at most once a
    /// second. Open does not log why the path is Unusable: that is for the caller to say.
    /// @return whether the store is open
    bool Open();

    /// @return why the last attempt to open the path failed, if only an operator can change that:
    ///         a file of another application or of a newer version, a file system that is too small
    const std::optional<std::string>& Unusable() const { return m_Unusable; }

    /// Stores a batch. Counts its records as lost (FULL) if it cannot be stored.
    /// @return whether the batch was stored
    bool Add(const TYBatch& batch);

    /// @return the application's policy; nothing if the store cannot be read
    std::optional<TYPolicy> Policy(const std::string& application);

    /// Does some of the housekeeping: drops records that exceed the limits, writes losses, sets a
    /// damaged store aside, recovers records. Takes at most some 100 ms.
    /// @return whether to call again
    bool Prune();

    /// @return whether there is housekeeping to do, so that Prune should be called
    bool HasGrown() const;

    /// Counts records that reached the service and were not stored. Prune writes the numbers to the
    /// store, at most once a second, and not while a reader keeps the log too long; until then they
    /// are in memory.
    /// @param application  empty if it is unknown
    void CountLoss(TYLossReason reason, const std::string& application, std::int64_t records);
    /// @return whether losses wait to be written, which HasGrown will say within a second
    bool HasLosses() const { return !m_Losses.IsEmpty(); }

    /// Closes the file and opens its path again, after the file was moved away. Does not close an
    /// in-memory store, which would lose its records.
    void Reopen();

    TYKeeperState State() const;

  private:
    template <class Operation>
    bool Try(TYTask task, Operation operation);
    bool OpenNow();
    /// The link may lead elsewhere than when the store was last open.
    void FindFile();
    void OpenFile();
    /// Callers wait while a large store is upgraded, so this logs why.
    void OpenStore(const TYStoreLimits& limits);
    void TakeOver(std::vector<std::string> marked);
    void Announce(std::int64_t limit);
    void Close();
    void CloseFile();
    void AddNow(const TYBatch& batch);
    void WriteLosses(bool isLast = false);
    void ReadSettings();
    bool CanTryAgain(TYTask task, const CTYDatabaseError& error);
    void ReopenMoved();
    void LogClockStep();
    bool SetAside();

    const std::string m_strPath;  ///< as given; may be a symbolic link
    // The file that it leads to. They change only while the store is closed.
    CTYStoreFile m_File;
    CTYAside m_Aside;
    const TYStoreLimits m_Limits;
    const Now m_Now;
    const TYReadTimes m_Times;
    // Destroyed in the reverse order: the space holds a descriptor that must be closed last.
    std::unique_ptr<CTYStoreSpace> m_pSpace;
    std::unique_ptr<CTYStore> m_pStore;
    std::unique_ptr<CTYRecovery> m_pRecovery;  ///< null if there is nothing to recover
    CTYStoreChecks m_Checks;                   ///< of the open file
    Clock::time_point m_NextOpen;
    Clock::time_point m_NextLosses;
    std::optional<std::string> m_Unusable;
    CTYTaskLog m_Log;
    CTYLosses m_Losses;
    CTYKeptRows m_Settings;               ///< of the open store, in case that it gets damaged
    std::int64_t m_nSettingsVersion = 0;  ///< data_version that they were read at
    std::int64_t m_nStored = 0;
    std::int64_t m_nRefused = 0;
    bool m_bAnnounced = false;   ///< the path of the open store was logged
    bool m_bCallerSays = false;  ///< the caller of Open says why the path is unusable
    bool m_bStuck = false;       ///< logged that a damaged file cannot be renamed
};

#endif  // TALLYRA_TYSTOREKEEPER_H
