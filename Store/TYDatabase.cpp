// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYDatabase.h"

CTYDatabase::CTYDatabase(const std::string& path, Mode mode) {
    const int flags =
        mode == Mode::READ_ONLY ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
    sqlite3* pHandle = nullptr;
    const int result =
        sqlite3_open_v2(path.c_str(), &pHandle, flags | SQLITE_OPEN_NOMUTEX, nullptr);
    m_pHandle.reset(pHandle);
    if (pHandle == nullptr) {
        throw CTYDatabaseError(SQLITE_NOMEM, "out of memory");
    }
    sqlite3_extended_result_codes(pHandle, 1);
    if (result != SQLITE_OK) {
        throw CTYDatabaseError(sqlite3_extended_errcode(pHandle),
                               path + ": " + sqlite3_errmsg(pHandle));
    }
    WaitForLocks(kLockWaitMs);
}

void CTYDatabase::Execute(const char* pSql) {
    const int result = sqlite3_exec(m_pHandle.get(), pSql, nullptr, nullptr, nullptr);
    if (result != SQLITE_OK) {
        throw CTYDatabaseError(result, sqlite3_errmsg(m_pHandle.get()));
    }
}

std::int64_t CTYDatabase::Number(const char* pSql) {
    CTYStatement statement(*this, pSql);
    return statement.Step() ? statement.Int(0) : 0;
}

CTYTransaction::CTYTransaction(CTYDatabase& database, const char* pBegin) : m_Database(database) {
    m_Database.Execute(pBegin);
}

CTYTransaction::~CTYTransaction() {
    // After some errors SQLite has already rolled back; ROLLBACK then fails, which is harmless.
    if (m_bOpen) {
        sqlite3_exec(m_Database.Handle(), "ROLLBACK", nullptr, nullptr, nullptr);
    }
}

void CTYTransaction::Commit() {
    m_Database.Execute("COMMIT");
    m_bOpen = false;
}

CTYStatement::CTYStatement(CTYDatabase& database, std::string_view sql) : m_Database(database) {
    sqlite3_stmt* pStatement = nullptr;
    Check(sqlite3_prepare_v3(database.Handle(), sql.data(), static_cast<int>(sql.size()),
                             SQLITE_PREPARE_PERSISTENT, &pStatement, nullptr));
    m_pStatement.reset(pStatement);
}

bool CTYStatement::Step() {
    const int result = sqlite3_step(m_pStatement.get());
    if (result == SQLITE_ROW) {
        return true;
    }
    Reset();
    if (result != SQLITE_DONE) {
        Check(result);
    }
    return false;
}

std::string_view CTYStatement::Text(int column) const {
    const void* pBytes = Type(column) == SQLITE_BLOB
                             ? sqlite3_column_blob(m_pStatement.get(), column)
                             : sqlite3_column_text(m_pStatement.get(), column);
    const int size = sqlite3_column_bytes(m_pStatement.get(), column);
    return {static_cast<const char*>(pBytes), static_cast<std::size_t>(size)};
}

void CTYStatement::Bind(int index, std::int64_t value) {
    Check(sqlite3_bind_int64(m_pStatement.get(), index, value));
}

void CTYStatement::Bind(int index, std::string_view text) {
    Check(sqlite3_bind_text64(m_pStatement.get(), index, text.data() != nullptr ? text.data() : "",
                              text.size(), SQLITE_STATIC, SQLITE_UTF8));
}

void CTYStatement::Bind(int index, TYBlob blob) {
    Check(sqlite3_bind_blob64(m_pStatement.get(), index,
                              blob.bytes.data() != nullptr ? blob.bytes.data() : "",
                              blob.bytes.size(), SQLITE_STATIC));
}

void CTYStatement::Bind(int index, std::nullptr_t) {
    Check(sqlite3_bind_null(m_pStatement.get(), index));
}

void CTYStatement::Check(int result) const {
    if (result != SQLITE_OK) {
        throw CTYDatabaseError(result, sqlite3_errmsg(m_Database.Handle()));
    }
}
