// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYStoreKeeper.h"

#include "TYLog.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <utility>

// Problem: the service runs for months on devices whose disks fill up, turn read-only and fail. An
// error of the store must neither end the service nor lose records that it has accepted. A player
// that calls repeatedly must not flood the log. The service must recover without an operator.
//
// Idea: every operation runs through Try, which opens the store if needed and sorts errors into
// three kinds.
//
//   Transient: full disk, lock, allocation failure. The file is intact and stays open. The
//   operation is refused; the next one tries again. After a lock timeout, further operations do not
//   wait for locks, so that one process that holds a lock does not delay each call by kLockWaitMs.
//
//   Damage: SQLite reports a corrupt file. The file and its log are renamed to
//   <path>.damaged-<time>, never deleted, and the operation is repeated once on a new file.
//
//   Everything else: an unreadable folder, an I/O error, a file of another application. The store
//   is closed, and opened again at most once per kOpenPeriod, since opening may take long.
//
// Logging: the first error of a kind is logged for each task, and so is the first success after it.
// Errors in between are not.
//
// Renaming needs care because a database in WAL mode is three files:
// - The log (-wal) and its index (-shm) are renamed before the database. If the service crashes in
//   between, a database without a log remains; the other order would leave a log whose database is
//   missing, which SQLite deletes.
// - If the operator moves the database away, its log keeps the old name. A new database of that
//   name must not find this log, so Close empties it and renames the rest.
//
// Always true:
// - Add returns true only after a commit.
// - m_pStore is null if and only if no file is open.
// - No file with records is ever deleted or overwritten.

#define TY_LOG_TAG "TALLYRA_SERVICE"

namespace {

// Minimum time between two attempts to open the file.
constexpr std::chrono::seconds kOpenPeriod{1};

constexpr const char* kInMemory = ":memory:";
constexpr std::array kSuffixes = {"", "-wal", "-shm"};

bool IsDamage(const CTYDatabaseError& error) {
    return error.Kind() == SQLITE_CORRUPT || error.Kind() == SQLITE_NOTADB;
}

// Errors that concern only the operation: the file stays open.
bool IsTransient(const CTYDatabaseError& error) {
    return error.Kind() == SQLITE_FULL || error.Kind() == SQLITE_BUSY ||
           error.Kind() == SQLITE_LOCKED || error.Kind() == SQLITE_NOMEM;
}

std::uint64_t BitOf(int kind) {
    return std::uint64_t{1} << (kind & 63);
}

std::string TimeStamp() {
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    std::array<char, 32> text;
    std::strftime(text.data(), text.size(), "%Y%m%dT%H%M%SZ", &utc);
    return text.data();
}

bool IsTaken(const std::string& name) {
    std::error_code ignored;
    return std::any_of(kSuffixes.begin(), kSuffixes.end(), [&](const char* pSuffix) {
        return std::filesystem::symlink_status(name + pSuffix, ignored).type() !=
               std::filesystem::file_type::not_found;
    });
}

// Numbers the names of files that are set aside within the same second.
std::string NameAside(const std::string& path, const char* pWhy) {
    const std::string first = path + "." + pWhy + "-" + TimeStamp();
    std::string name = first;
    for (int i = 1; IsTaken(name); ++i) {
        name = first + "-" + std::to_string(i);
    }
    return name;
}

bool Move(const std::string& from, const std::string& to) {
    std::error_code ignored;
    return !std::filesystem::exists(from, ignored) || std::rename(from.c_str(), to.c_str()) == 0;
}

}  // namespace

CTYStoreKeeper::CTYStoreKeeper(std::string path, TYStoreLimits limits, Now now)
    : m_strPath(std::move(path)), m_Limits(limits), m_Now(std::move(now)) {}

bool CTYStoreKeeper::Open() {
    return Try(Task::OPEN, [] {});
}

bool CTYStoreKeeper::Add(const TYBatch& batch) {
    return Try(Task::ADD, [&] {
        m_pStore->Add(batch);
        LogClockStep();
    });
}

std::optional<int> CTYStoreKeeper::Policy(const std::string& application) {
    std::optional<int> policy;
    Try(Task::POLICY, [&] { policy = m_pStore->Policy(application).value; });
    return policy;
}

bool CTYStoreKeeper::Prune() {
    bool isMoreToDo = false;
    Try(Task::PRUNE, [&] {
        isMoreToDo = m_pStore->Prune();
        LogClockStep();
    });
    return isMoreToDo;
}

void CTYStoreKeeper::LogClockStep() {
    if (const std::int64_t step = m_pStore->TakeClockStep(); step != 0) {
        TY_LOG_INFO("the wall clock stepped by %.3f s; ages do not change",
                    static_cast<double>(step) / 1e9);
    }
}

void CTYStoreKeeper::Reopen() {
    // Closing would lose the records in memory.
    if (m_strPath != kInMemory) {
        Close();
        m_bAnnounced = false;
    }
    m_NextOpen = {};
    Open();
}

void CTYStoreKeeper::Close() {
    try {
        if (m_pStore != nullptr) {
            m_pStore->EmptyLog();
        }
    } catch (const CTYDatabaseError& error) {
        TY_LOG_ERROR("closing %s with records left in its log: %s", m_strPath.c_str(),
                     error.what());
    }
    m_pStore.reset();
    std::error_code ignored;
    if (!std::filesystem::exists(m_strPath, ignored)) {
        MoveLogAside();
    }
}

// If another process still reads the moved file, its log stays under the old name. The new database
// must not use that log.
void CTYStoreKeeper::MoveLogAside() {
    std::error_code ignored;
    const std::string log = m_strPath + "-wal";
    const bool isNeeded =
        std::filesystem::exists(log, ignored) && std::filesystem::file_size(log, ignored) > 0;
    const std::string aside = NameAside(m_strPath, "left");
    Move(log, aside + "-wal");
    Move(m_strPath + "-shm", aside + "-shm");
    if (isNeeded) {
        TY_LOG_ERROR("some records of the moved file are still in its log, now %s-wal",
                     aside.c_str());
    }
}

const char* CTYStoreKeeper::TextOf(Task task) {
    switch (task) {
        case Task::OPEN:
            return "open the database";
        case Task::ADD:
            return "store a batch";
        case Task::POLICY:
            return "read a policy";
        case Task::PRUNE:
            return "drop old records";
        case Task::COUNT:
            break;
    }
    return "";
}

// Runs the operation, and once more if a damaged file was set aside.
template <class Operation>
bool CTYStoreKeeper::Try(Task task, Operation operation) {
    for (int attempt = 0; attempt < 2; ++attempt) {
        Task current = Task::OPEN;
        try {
            if (m_pStore == nullptr && !OpenNow()) {
                return false;
            }
            current = task;
            operation();
            Recover(task);
            return true;
        } catch (const CTYDatabaseError& error) {
            Report(current, error);
            if (!CanTryAgain(error)) {
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
    m_pStore = std::make_unique<CTYStore>(m_strPath, m_Limits);
    m_Reported.at(static_cast<std::size_t>(Task::OPEN)) = 0;
    m_bStuck = false;
    if (!m_bAnnounced) {
        TY_LOG_INFO("storing records in %s", m_strPath.c_str());
        m_bAnnounced = true;
    }
    return true;
}

bool CTYStoreKeeper::CanTryAgain(const CTYDatabaseError& error) {
    if (m_pStore != nullptr && IsTransient(error)) {
        // One operation has waited for the lock. Refuse the next ones at once until it is released.
        m_pStore->WaitForLocks(0);
        return false;
    }
    m_pStore.reset();
    m_NextOpen = m_Now() + kOpenPeriod;
    if (!IsDamage(error) || m_strPath == kInMemory || !SetAside()) {
        return false;
    }
    m_NextOpen = {};
    return true;
}

void CTYStoreKeeper::Report(Task task, const CTYDatabaseError& error) {
    std::uint64_t& reported = m_Reported.at(static_cast<std::size_t>(task));
    if ((reported & BitOf(error.Kind())) != 0) {
        return;
    }
    TY_LOG_ERROR("cannot %s: %s (SQLite %d); refusing calls until it works", TextOf(task),
                 error.what(), error.Code());
    reported |= BitOf(error.Kind());
    m_bAnnounced = m_bAnnounced && task != Task::OPEN;
}

void CTYStoreKeeper::Recover(Task task) {
    std::uint64_t& reported = m_Reported.at(static_cast<std::size_t>(task));
    if (reported != 0) {
        TY_LOG_INFO("can %s again", TextOf(task));
        m_pStore->WaitForLocks(CTYDatabase::kLockWaitMs);
        reported = 0;
    }
}

bool CTYStoreKeeper::SetAside() {
    const std::string aside = NameAside(m_strPath, "damaged");
    // The database last: SQLite deletes a log without a database.
    for (const char* pSuffix : {"-wal", "-shm", ""}) {
        if (!Move(m_strPath + pSuffix, aside + pSuffix)) {
            if (!m_bStuck) {
                TY_LOG_ERROR("cannot rename the damaged %s%s: %s", m_strPath.c_str(), pSuffix,
                             std::strerror(errno));
            }
            m_bStuck = true;
            return false;
        }
    }
    TY_LOG_ERROR("renamed the damaged database to %s", aside.c_str());
    m_bAnnounced = false;
    return true;
}
