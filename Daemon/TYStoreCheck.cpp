// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYStoreCheck.h"

#include "TYDatabase.h"
#include "TYLog.h"

#include <chrono>
#include <memory>
#include <system_error>
#include <utility>

// Problem: SQLite notices a damaged page when it reads it. A page in the middle of the entries may
// be read for the first time months after a power failure has damaged it, when the store is
// queried. Reading all pages takes seconds, in which the service must go on storing batches.
//
// Idea: after an unclean end, PRAGMA quick_check runs in a thread with a read-only connection. In
// WAL mode a reader does not delay the writer; it only keeps the log from starting over, so the
// keeper ends the check when the log gets too long.
//
// Ending needs care. sqlite3_interrupt has no effect before the statement has begun, and the
// progress handler is not called while one opcode walks through a large table. So the destructor
// does both, repeatedly, until the thread says that it has ended.
//
// Always true:
// - m_pHandle is null unless the thread's connection is open; it changes under m_Mutex, so that a
//   closed connection is never interrupted.
// - An interrupted or failed check finds no damage: only SQLite's verdict counts.

#define TY_LOG_TAG "TALLYRA_SERVICE"

namespace {

constexpr std::chrono::milliseconds kInterruptPeriod{5};
constexpr int kOpcodesAtOnce = 1000;
// After this time a check that gave way begins again.
constexpr std::chrono::minutes kPause{1};

int ShouldStop(void* pStop) {
    return *static_cast<std::atomic<bool>*>(pStop) ? 1 : 0;
}

}  // namespace

CTYStoreCheck::CTYStoreCheck(std::string path, Depth depth)
    : m_strPath(std::move(path)), m_Depth(depth) {
    try {
        m_Thread = std::thread(&CTYStoreCheck::Run, this);
    } catch (const std::system_error& error) {
        TY_LOG_ERROR("cannot check the database: %s", error.what());
        m_bDone = true;
    }
}

CTYStoreCheck::~CTYStoreCheck() {
    m_bStop = true;
    {
        std::unique_lock lock(m_Mutex);
        while (!m_bDone) {
            if (m_pHandle != nullptr) {
                sqlite3_interrupt(m_pHandle);
            }
            m_Ended.wait_for(lock, kInterruptPeriod);
        }
    }
    if (m_Thread.joinable()) {
        m_Thread.join();
    }
}

void CTYStoreCheck::Run() {
    m_strDamage = Check();
    const std::lock_guard lock(m_Mutex);
    m_bDone = true;
    m_Ended.notify_one();
}

std::string CTYStoreCheck::Check() {
    std::string damage;
    std::unique_ptr<CTYDatabase> database;
    try {
        database = std::make_unique<CTYDatabase>(m_strPath, CTYDatabase::Mode::READ_ONLY);
        sqlite3_progress_handler(database->Handle(), kOpcodesAtOnce, &ShouldStop, &m_bStop);
        Expose(database->Handle());
        CTYStatement check(*database, m_Depth == Depth::PAGES ? "PRAGMA quick_check(1)"
                                                              : "PRAGMA integrity_check(1)");
        if (check.Step() && check.Text(0) != "ok") {
            damage = check.Text(0);
        }
    } catch (const CTYDatabaseError& error) {
        const bool isDamage = error.Kind() == SQLITE_CORRUPT || error.Kind() == SQLITE_NOTADB;
        damage = isDamage ? error.what() : "";
    }
    Expose(nullptr);
    return damage;
}

void CTYStoreCheck::Expose(sqlite3* pHandle) {
    const std::lock_guard lock(m_Mutex);
    m_pHandle = pHandle;
}

void CTYStoreChecks::StartThorough(const std::string& path) {
    if (!m_bWasThorough) {
        m_bWasThorough = true;
        m_pCheck = std::make_unique<CTYStoreCheck>(path, CTYStoreCheck::Depth::INDICES);
    }
}

void CTYStoreChecks::StartIfDue(const std::string& path, Clock::time_point now) {
    if (m_Next && now >= *m_Next) {
        m_Next.reset();
        Start(path);
    }
}

void CTYStoreChecks::Take() {
    if (!IsDone()) {
        return;
    }
    const std::string damage = m_pCheck->Damage();
    m_pCheck.reset();
    if (!damage.empty()) {
        throw CTYDatabaseError(SQLITE_CORRUPT, "the check found damage: " + damage);
    }
}

void CTYStoreChecks::GiveWay(Clock::time_point now) {
    m_pCheck.reset();
    m_Next = now + kPause;
}
