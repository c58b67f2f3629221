// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYDatabase.h"

#include <sys/stat.h>

#include <cstdio>

// Problem: SQLite works on open descriptors. If an operator deletes or replaces the database while
// it is open, commits go on succeeding, into files that have no name any more and vanish with the
// process. The log (-wal) matters as much as the database: the latest commits are only there.
//
// Idea: before each COMMIT, compare the files that the paths lead to with the files in use. For the
// database SQLite itself can tell (SQLITE_FCNTL_HAS_MOVED). For the log and its index it cannot, so
// the connection remembers their device and inode at its first look. SQLite keeps both files open
// from the first transaction in WAL mode until the connection is closed, and never replaces them
// meanwhile. The check takes three calls of stat.
//
// Always true:
// - No CTYTransaction commits to a file that was moved before its COMMIT began. A file that moves
//   during the COMMIT takes the records along: they are wherever the operator moved it.
// - Before the first transaction in WAL mode there is no log, and nothing is remembered.

namespace {

constexpr std::array kLogSuffixes = {"-wal", "-shm"};

int FlagsOf(CTYDatabase::Mode mode) {
    switch (mode) {
        case CTYDatabase::Mode::READ_ONLY:
            return SQLITE_OPEN_READONLY;
        case CTYDatabase::Mode::READ_WRITE:
            return SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
        case CTYDatabase::Mode::IMMUTABLE:
            return SQLITE_OPEN_READONLY | SQLITE_OPEN_URI;
    }
    return 0;
}

// Escapes every byte, so that none has a meaning in the URI.
std::string ImmutableUri(const std::string& path) {
    std::string uri = "file:";
    for (const unsigned char byte : path) {
        std::array<char, 4> escaped;
        std::snprintf(escaped.data(), escaped.size(), "%%%02x", byte);
        uri += escaped.data();
    }
    return uri + "?immutable=1";
}

std::string NameFor(const std::string& path, CTYDatabase::Mode mode) {
    if (mode == CTYDatabase::Mode::IMMUTABLE) {
        return ImmutableUri(path);
    }
    // SQLite may be built to take such a name for a URI.
    return path.starts_with("file:") ? "./" + path : path;
}

}  // namespace

CTYDatabase::CTYDatabase(const std::string& path, Mode mode) {
    const std::string name = NameFor(path, mode);
    sqlite3* pHandle = nullptr;
    const int result =
        sqlite3_open_v2(name.c_str(), &pHandle, FlagsOf(mode) | SQLITE_OPEN_NOMUTEX, nullptr);
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

std::optional<CTYDatabase::FileId> CTYDatabase::IdOf(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        return std::nullopt;
    }
    return FileId{status.st_dev, status.st_ino};
}

std::string CTYDatabase::NameOf(std::size_t logFile) const {
    const char* pName = sqlite3_db_filename(Handle(), "main");
    return std::string(pName != nullptr ? pName : "") + kLogSuffixes.at(logFile);
}

bool CTYDatabase::HasMoved() {
    int hasMoved = 0;
    sqlite3_file_control(Handle(), "main", SQLITE_FCNTL_HAS_MOVED, &hasMoved);
    const char* pName = sqlite3_db_filename(Handle(), "main");
    const bool isFile = pName != nullptr && *pName != '\0';
    for (std::size_t i = 0; isFile && i < m_LogFiles.size(); ++i) {
        const std::optional<FileId> id = IdOf(NameOf(i));
        m_LogFiles.at(i) = m_LogFiles.at(i) ? m_LogFiles.at(i) : id;
        hasMoved |= m_LogFiles.at(i) != id ? 1 : 0;
    }
    return hasMoved != 0;
}

std::vector<std::string> CTYDatabase::LogFiles() const {
    std::vector<std::string> files;
    for (std::size_t i = 0; i < m_LogFiles.size(); ++i) {
        if (m_LogFiles.at(i) && m_LogFiles.at(i) == IdOf(NameOf(i))) {
            files.push_back(NameOf(i));
        }
    }
    return files;
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
    if (m_Database.HasMoved()) {
        throw CTYDatabaseError(SQLITE_READONLY_DBMOVED, "the file was moved, replaced or deleted");
    }
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
