// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYStoreKeeper.h"

#include "TYLog.h"
#include "TYRecordImage.h"
#include "TYStoreErrors.h"
#include "TYStorePath.h"

#include <map>
#include <system_error>
#include <utility>

// Problem: the service runs for months on devices whose disks fill up, turn read-only and fail. An
// error of the store must neither end the service nor lose records that it has accepted. A player
// that calls repeatedly must not flood the log. The service must recover without an operator.
//
// Idea: every operation runs through Try, which opens the store if needed and sorts errors into
// five kinds.
//
//   Transient: full disk, lock, allocation failure. The file is intact and stays open. The
//   operation is refused; the next one tries again. After a lock timeout, further operations do not
//   wait for locks, so that one process that holds a lock does not delay each call by kLockWaitMs.
//
//   Moved: the path leads to another file, or to none. The file is closed, and the operation is
//   repeated on what is at the path now. This is noticed before COMMIT, so no batch is lost.
//
//   Damage: SQLite reports a corrupt file, or the check does that follows an unclean end, or the
//   tables are not those of a store. The file is renamed (TYAside.cpp), the operation is repeated
//   on a new file, and housekeeping recovers what can be read (TYRecovery.cpp). Policies are taken
//   over first.
//
//   Suspicious: a statement does not fit to its tables. The operation is refused, and the check
//   looks for the reason once.
//
//   Everything else: an unreadable folder, an I/O error, a file of another application. The store
//   is closed, and opened again at most once per kOpenPeriod, since opening may take long.
//
// Logging: the first error of a kind is logged for each task, and so is the first success after it.
// Errors in between are not.
//
// Always true:
// - Add returns true only after a commit to a file that the path leads to.
// - m_pStore is null if and only if no file is open; m_pSpace is there whenever m_pStore is.
// - No file with records is ever deleted or overwritten, and no file of another application is
//   changed.
// - A log is never left beside a database that it does not belong to: a database that was moved
//   away leaves its log behind, and LeaveLog renames it.

#define TY_LOG_TAG "TALLYRA_SERVICE"

namespace {

// Minimum time between two attempts to open the file.
constexpr std::chrono::seconds kOpenPeriod{1};
// How long losses wait in memory.
constexpr std::chrono::seconds kLossesPeriod{1};

void LogUpgrade(const std::string& file, int version) {
    TY_LOG_INFO("upgrading %s from schema version %d to %d; no record is stored meanwhile",
                file.c_str(), version, SchemaVersion());
}

}  // namespace

CTYStoreKeeper::CTYStoreKeeper(std::string path, TYStoreLimits limits, Now now, TYReadTimes times)
    : m_strPath(std::move(path)),
      m_File(FollowLinks(m_strPath)),
      m_Aside(m_File.Path()),
      m_Limits(limits),
      m_Now(std::move(now)),
      m_Times(std::move(times)) {}

CTYStoreKeeper::~CTYStoreKeeper() {
    if (m_pStore != nullptr) {
        WriteLosses(true);
    }
    m_Checks.Stop();
}

bool CTYStoreKeeper::Open() {
    m_bCallerSays = true;
    const bool isOpen = Try(TYTask::OPEN, [] {});
    m_bCallerSays = false;
    return isOpen;
}

bool CTYStoreKeeper::Add(const TYBatch& batch) {
    if (Try(TYTask::ADD, [&] { AddNow(batch); })) {
        m_nStored += static_cast<std::int64_t>(batch.records.size());
        return true;
    }
    std::map<std::string, std::int64_t> applications;
    for (const TYMediaData& record : batch.records) {
        ++applications[ValidText({record.serviceID, sizeof(record.serviceID)})];
    }
    for (const auto& [application, records] : applications) {
        CountLoss(TYLossReason::FULL, application, records);
    }
    return false;
}

void CTYStoreKeeper::AddNow(const TYBatch& batch) {
    if (m_Checks.IsRunning() && m_pSpace->IsLogTooLong(*m_pStore)) {
        // The check is the reader that keeps the log.
        m_Checks.GiveWay(m_Now());
    }
    m_pSpace->Provide(*m_pStore, m_Now());
    try {
        m_pStore->Add(batch);
    } catch (const CTYDatabaseError& error) {
        if (error.Kind() != SQLITE_FULL) {
            throw;
        }
        m_pStore->EmptyLog();
        m_pStore->Add(batch);
    }
    LogClockStep();
}

void CTYStoreKeeper::LogClockStep() {
    if (const std::int64_t step = m_pStore->TakeClockStep(); step != 0) {
        TY_LOG_INFO("the wall clock stepped by %.3f s; ages do not change",
                    static_cast<double>(step) / 1e9);
    }
}

std::optional<TYPolicy> CTYStoreKeeper::Policy(const std::string& application) {
    std::optional<TYPolicy> policy;
    Try(TYTask::POLICY, [&] { policy = m_pStore->Policy(application); });
    return policy;
}

bool CTYStoreKeeper::Prune() {
    bool isMoreToDo = false;
    Try(TYTask::PRUNE, [&] {
        m_Checks.Take();
        m_Checks.StartIfDue(m_File.Path(), m_Now());
        ReadSettings();
        isMoreToDo = m_pSpace->Prune(*m_pStore);
        LogClockStep();
    });
    WriteLosses();
    if (m_pRecovery == nullptr) {
        return isMoreToDo;
    }
    bool isMoreToRecover = false;
    const bool isDone = Try(TYTask::RECOVER, [&] {
        m_pSpace->Provide(*m_pStore, m_Now());
        isMoreToRecover = m_pRecovery != nullptr && m_pRecovery->Step(*m_pStore);
    });
    if (isDone && !isMoreToRecover) {
        m_pRecovery.reset();
    }
    return isMoreToDo || isMoreToRecover;
}

bool CTYStoreKeeper::HasGrown() const {
    return (m_pStore != nullptr && m_pStore->HasGrown()) || m_Checks.IsDone() ||
           (HasLosses() && m_Now() >= m_NextLosses);
}

void CTYStoreKeeper::CountLoss(TYLossReason reason, const std::string& application,
                               std::int64_t records) {
    if (!HasLosses()) {
        m_NextLosses = m_Now() + kLossesPeriod;
    }
    m_Losses.Count(reason, application, records);
    m_nRefused += records;
}

void CTYStoreKeeper::WriteLosses(bool isLast) {
    if (!HasLosses()) {
        return;
    }
    m_NextLosses = m_Now() + kLossesPeriod;
    Try(TYTask::LOSSES, [&] {
        // Writing each second would make a log without bound that a reader keeps for days.
        if (isLast || !m_pSpace->IsLogTooLong(*m_pStore)) {
            m_pStore->NoteLosses(m_Losses);
            m_Losses.Clear();
        }
    });
}

TYKeeperState CTYStoreKeeper::State() const {
    return {m_nStored, m_nRefused, m_File.Bytes() + m_File.LogBytes(), m_pStore != nullptr};
}

void CTYStoreKeeper::Reopen() {
    // Closing would lose the records in memory.
    if (!m_File.IsInMemory()) {
        Close();
        m_bAnnounced = false;
    }
    m_NextOpen = {};
    Try(TYTask::OPEN, [] {});
}

// Closes an intact file. What is known of it concerns no other file.
void CTYStoreKeeper::Close() {
    std::vector<std::string> left;
    m_Checks.Stop();
    if (m_pStore != nullptr) {
        try {
            m_pStore->SaveTime();
            m_pStore->EmptyLog();
        } catch (const CTYDatabaseError& error) {
            TY_LOG_ERROR("closing %s with records left in its log: %s", m_File.Path().c_str(),
                         error.what());
        }
        if (m_pStore->Database().HasMoved()) {
            left = m_pStore->Database().LogFiles();
        }
    }
    CloseFile();
    m_Settings.Clear();
    m_Aside.LeaveLog(left);
}

void CTYStoreKeeper::CloseFile() {
    m_Checks = CTYStoreChecks();
    m_pRecovery.reset();
    m_pStore.reset();
    m_pSpace.reset();
}

// Runs the operation, and once more on another file if the first was set aside or has moved.
template <class Operation>
bool CTYStoreKeeper::Try(TYTask task, Operation operation) {
    for (int attempt = 0; attempt < 2; ++attempt) {
        TYTask current = TYTask::OPEN;
        try {
            if (m_pStore == nullptr && !OpenNow()) {
                return false;
            }
            current = task;
            operation();
            if (m_Log.Succeed(task)) {
                m_pStore->WaitForLocks(CTYDatabase::kLockWaitMs);
            }
            return true;
        } catch (const CTYDatabaseError& error) {
            if (!CanTryAgain(current, error)) {
                return false;
            }
        }
    }
    return false;
}

bool CTYStoreKeeper::OpenNow() {
    if (m_Now() < m_NextOpen) {
        return false;
    }
    try {
        FindFile();
        OpenFile();
    } catch (const CTYDatabaseError& error) {
        CloseFile();
        m_Unusable = error.Kind() == SQLITE_MISMATCH ? std::optional(error.what()) : std::nullopt;
        throw;
    } catch (const std::system_error& error) {
        throw CTYDatabaseError(SQLITE_CANTOPEN, error.what());
    }
    m_Unusable.reset();
    m_Log.SucceedSilently(TYTask::OPEN);
    m_bStuck = false;
    return true;
}

void CTYStoreKeeper::FindFile() {
    m_File = CTYStoreFile(FollowLinks(m_strPath));
    m_Aside = CTYAside(m_File.Path());
}

void CTYStoreKeeper::OpenFile() {
    TYStoreLimits limits = m_Limits;
    bool isUnclean = false;
    std::vector<std::string> marked;
    if (!m_File.IsInMemory()) {
        m_File.CheckUsable();
        marked = m_Aside.Marked();
        m_Aside.LeaveOrphanedLog();
        isUnclean = m_File.LogBytes() > 0;
        limits.bytes = CTYStoreSpace::LimitFor(m_File, m_Aside.Bytes(), limits.bytes);
    }
    OpenStore(limits);
    m_pSpace = std::make_unique<CTYStoreSpace>(
        m_File, limits.bytes, m_pStore->Database().Number("PRAGMA journal_size_limit"));
    m_pStore->Database().HasMoved();
    TakeOver(std::move(marked));
    ReadSettings();
    if (isUnclean) {
        m_Checks.Start(m_File.Path());
    }
    Announce(limits.bytes);
}

void CTYStoreKeeper::OpenStore(const TYStoreLimits& limits) {
    std::optional<Clock::time_point> begin;
    m_pStore = std::make_unique<CTYStore>(m_File.Path(), limits, m_Times, [&](int version) {
        begin = m_Now();
        LogUpgrade(m_File.Path(), version);
    });
    if (begin) {
        TY_LOG_INFO("upgraded %s in %.1f s", m_File.Path().c_str(),
                    std::chrono::duration<double>(m_Now() - *begin).count());
    }
}

void CTYStoreKeeper::TakeOver(std::vector<std::string> marked) {
    m_nSettingsVersion = 0;
    if (!marked.empty()) {
        m_pRecovery = std::make_unique<CTYRecovery>(m_Aside, std::move(marked));
        m_pRecovery->Begin(*m_pStore, m_Settings);
    }
}

void CTYStoreKeeper::Announce(std::int64_t limit) {
    if (m_bAnnounced) {
        return;
    }
    m_bAnnounced = true;
    TY_LOG_INFO("storing records in %s", m_File.Path().c_str());
    if (limit < m_Limits.bytes) {
        TY_LOG_INFO("keeping within %lld MiB, three quarters of the file system%s",
                    static_cast<long long>(limit >> 20),
                    m_Aside.Bytes() > 0 ? " without the files that were set aside" : "");
    }
}

// Policies are rare and change rarely: read them only after another process has written.
void CTYStoreKeeper::ReadSettings() {
    CTYDatabase& database = m_pStore->Database();
    const std::int64_t version = database.Number("PRAGMA data_version");
    if (version != m_nSettingsVersion) {
        m_Settings.ReadSettings(database);
        m_nSettingsVersion = version;
    }
}

bool CTYStoreKeeper::CanTryAgain(TYTask task, const CTYDatabaseError& error) {
    // What is damaged is the open file: leave alone what may be at its path by now.
    if (m_pStore != nullptr && (error.Code() == SQLITE_READONLY_DBMOVED ||
                                (IsDamage(error) && m_pStore->Database().HasMoved()))) {
        ReopenMoved();
        return true;
    }
    const bool isSaid = m_bCallerSays && m_Unusable;
    if (!isSaid && m_Log.Fail(task, error) && task == TYTask::OPEN) {
        m_bAnnounced = false;
    }
    if (m_pStore != nullptr && IsSuspicious(error)) {
        if (!m_File.IsInMemory()) {
            m_Checks.StartThorough(m_File.Path());
        }
        return false;
    }
    if (m_pStore != nullptr && IsTransient(error)) {
        // One operation has waited for the lock. Refuse the next ones at once until it is released.
        m_pStore->WaitForLocks(0);
        return false;
    }
    // The file is known to be ours, so it has damaged tables if they do not fit to the statements.
    const bool isDamage = IsDamage(error) || (task == TYTask::OPEN && error.Kind() == SQLITE_ERROR);
    const bool isToMove = isDamage && !m_File.IsInMemory() && !m_File.IsForeign();
    // Closing makes the file look intact: a kill between this and SetAside hides the damage.
    CloseFile();
    m_NextOpen = m_Now() + kOpenPeriod;
    if (!isToMove || !SetAside()) {
        return false;
    }
    m_NextOpen = {};
    return true;
}

void CTYStoreKeeper::ReopenMoved() {
    TY_LOG_ERROR("%s was moved, replaced or deleted; opening the path again",
                 m_File.Path().c_str());
    Close();
    m_bAnnounced = false;
    m_NextOpen = {};
}

bool CTYStoreKeeper::SetAside() {
    try {
        const std::string aside = m_Aside.SetAside();
        TY_LOG_ERROR("renamed the damaged database to %s", aside.c_str());
    } catch (const std::system_error& error) {
        if (!m_bStuck) {
            TY_LOG_ERROR("%s", error.what());
        }
        m_bStuck = true;
        return false;
    }
    m_bAnnounced = false;
    return true;
}
