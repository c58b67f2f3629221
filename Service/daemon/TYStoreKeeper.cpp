// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYStoreKeeper.h"

#include "TYLog.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <utility>

#define TY_LOG_TAG "TALLYRA_SERVICE"

namespace {

// A file that cannot be opened is not tried again for each call of a player.
constexpr std::chrono::seconds kOpenPeriod{1};

constexpr const char* kInMemory = ":memory:";

bool IsDamage(const CTYDatabaseError& error) {
    return error.Kind() == SQLITE_CORRUPT || error.Kind() == SQLITE_NOTADB;
}

// These concern the operation and not the file: it stays open.
bool IsPassing(const CTYDatabaseError& error) {
    return error.Kind() == SQLITE_FULL || error.Kind() == SQLITE_BUSY ||
           error.Kind() == SQLITE_LOCKED || error.Kind() == SQLITE_NOMEM;
}

std::string TimeStamp() {
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    std::array<char, 32> text;
    std::strftime(text.data(), text.size(), "%Y%m%dT%H%M%SZ", &utc);
    return text.data();
}

}  // namespace

CTYStoreKeeper::CTYStoreKeeper(std::string path, TYStoreLimits limits)
    : m_strPath(std::move(path)), m_Limits(limits) {}

bool CTYStoreKeeper::Open() {
    return Try("open", [] {});
}

bool CTYStoreKeeper::Add(const TYBatch& batch) {
    return Try("store a batch", [&] { m_pStore->Add(batch); });
}

std::optional<int> CTYStoreKeeper::Policy(const std::string& application) {
    std::optional<int> policy;
    Try("read a policy", [&] { policy = m_pStore->Policy(application); });
    return policy;
}

void CTYStoreKeeper::Prune(std::int64_t now) {
    Try("drop old records", [&] { m_pStore->Prune(now); });
}

void CTYStoreKeeper::Reopen() {
    // What is in memory would be lost, and there is no other to open.
    if (m_strPath != kInMemory) {
        m_pStore.reset();
    }
    m_NextOpen = {};
    Open();
}

// A damaged file is replaced, and the operation is done on the new one.
template <class Operation>
bool CTYStoreKeeper::Try(const char* pWhat, Operation operation) {
    for (int attempt = 0; attempt < 2; ++attempt) {
        try {
            if (m_pStore == nullptr && !OpenNow()) {
                return false;
            }
            operation();
            if (m_nReported != SQLITE_OK) {
                TY_LOG_INFO("%s works again", m_strPath.c_str());
                m_nReported = SQLITE_OK;
            }
            return true;
        } catch (const CTYDatabaseError& error) {
            Report(pWhat, error);
            if (!IsPassing(error)) {
                m_pStore.reset();
            }
            if (!IsDamage(error) || m_strPath == kInMemory) {
                return false;
            }
            SetAside();
        }
    }
    return false;
}

bool CTYStoreKeeper::OpenNow() {
    const Clock::time_point now = Clock::now();
    if (now < m_NextOpen) {
        return false;
    }
    m_NextOpen = now + kOpenPeriod;
    m_pStore = std::make_unique<CTYStore>(m_strPath, m_Limits);
    m_NextOpen = {};
    TY_LOG_INFO("records are kept in %s", m_strPath.c_str());
    return true;
}

void CTYStoreKeeper::Report(const char* pWhat, const CTYDatabaseError& error) {
    if (m_nReported != error.Kind()) {
        TY_LOG_ERROR("cannot %s, refusing until that works: %s (SQLite %d)", pWhat, error.what(),
                     error.Code());
        m_nReported = error.Kind();
    }
}

void CTYStoreKeeper::SetAside() {
    const std::string aside = m_strPath + ".damaged-" + TimeStamp();
    for (const char* pSuffix : {"", "-wal", "-shm"}) {
        const std::string from = m_strPath + pSuffix;
        if (std::rename(from.c_str(), (aside + pSuffix).c_str()) != 0 && errno != ENOENT) {
            TY_LOG_ERROR("cannot set %s aside: %s", from.c_str(), std::strerror(errno));
        }
    }
    TY_LOG_ERROR("the damaged database was set aside as %s", aside.c_str());
    m_NextOpen = {};
}
