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

#define TY_LOG_TAG "TALLYRA_SERVICE"

namespace {

// A file that cannot be opened is not tried again for each call of a player.
constexpr std::chrono::seconds kOpenPeriod{1};

constexpr const char* kInMemory = ":memory:";
constexpr std::array kSuffixes = {"", "-wal", "-shm"};

bool IsDamage(const CTYDatabaseError& error) {
    return error.Kind() == SQLITE_CORRUPT || error.Kind() == SQLITE_NOTADB;
}

// These concern the operation and not the file: it stays open.
bool IsPassing(const CTYDatabaseError& error) {
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

// Two files may be damaged within a second: the second one must not replace the first.
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
    return Try(Task::ADD, [&] { m_pStore->Add(batch); });
}

std::optional<int> CTYStoreKeeper::Policy(const std::string& application) {
    std::optional<int> policy;
    Try(Task::POLICY, [&] { policy = m_pStore->Policy(application); });
    return policy;
}

bool CTYStoreKeeper::Prune(std::int64_t now) {
    bool isMoreToDo = false;
    Try(Task::PRUNE, [&] { isMoreToDo = m_pStore->Prune(now); });
    return isMoreToDo;
}

void CTYStoreKeeper::Reopen() {
    // What is in memory would be lost, and there is no other to open.
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
        TY_LOG_ERROR("%s is closed before its log is emptied: %s", m_strPath.c_str(), error.what());
    }
    m_pStore.reset();
    std::error_code ignored;
    if (!std::filesystem::exists(m_strPath, ignored)) {
        LeaveToItsReaders();
    }
}

// Whoever still reads a file that was moved away holds its log under the old name, where it would
// be taken for the new file's.
void CTYStoreKeeper::LeaveToItsReaders() {
    std::error_code ignored;
    const std::string log = m_strPath + "-wal";
    const bool isNeeded =
        std::filesystem::exists(log, ignored) && std::filesystem::file_size(log, ignored) > 0;
    const std::string aside = NameAside(m_strPath, "left");
    Move(log, aside + "-wal");
    Move(m_strPath + "-shm", aside + "-shm");
    if (isNeeded) {
        TY_LOG_ERROR("what the file that was moved away still lacks is in %s-wal", aside.c_str());
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
        default:
            return "drop old records";
    }
}

// A damaged file is replaced, and the operation is done on the new one.
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
        TY_LOG_INFO("records are kept in %s", m_strPath.c_str());
        m_bAnnounced = true;
    }
    return true;
}

bool CTYStoreKeeper::CanTryAgain(const CTYDatabaseError& error) {
    if (m_pStore != nullptr && IsPassing(error)) {
        // Whoever holds the lock has had the time to end. Further senders are refused at once.
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
    TY_LOG_ERROR("cannot %s, refusing until that works: %s (SQLite %d)", TextOf(task), error.what(),
                 error.Code());
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
    // The database goes last: SQLite deletes a log whose database is not there.
    for (const char* pSuffix : {"-wal", "-shm", ""}) {
        if (!Move(m_strPath + pSuffix, aside + pSuffix)) {
            if (!m_bStuck) {
                TY_LOG_ERROR("cannot set %s%s aside: %s", m_strPath.c_str(), pSuffix,
                             std::strerror(errno));
            }
            m_bStuck = true;
            return false;
        }
    }
    TY_LOG_ERROR("the damaged database was set aside as %s", aside.c_str());
    m_bAnnounced = false;
    return true;
}
