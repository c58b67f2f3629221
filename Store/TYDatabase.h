// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYDATABASE_H
#define TALLYRA_TYDATABASE_H

#include <sqlite3.h>
#include <sys/types.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

/// A failed SQLite call, with its extended result code.
class CTYDatabaseError : public std::runtime_error {
  public:
    CTYDatabaseError(int code, const std::string& text) : std::runtime_error(text), m_nCode(code) {}

    int Code() const { return m_nCode; }
    /// @return the primary result code, such as SQLITE_FULL
    int Kind() const { return m_nCode & 0xff; }

  private:
    int m_nCode;
};

/// A connection to an SQLite database. Every operation throws CTYDatabaseError when SQLite fails.
///
/// Threads: one at a time, statements included. Statements must not outlive their database.
class CTYDatabase {
  public:
    enum class Mode {
        READ_ONLY,
        READ_WRITE,
        IMMUTABLE,  ///< reads the file alone: no lock, and no look at its log
    };
    static constexpr int kLockWaitMs = 1000;

    /// Opens a file. READ_WRITE creates it if it is missing; ":memory:" opens a new in-memory
    /// database. Operations wait up to kLockWaitMs for locks of other connections. IMMUTABLE is for
    /// files that no process writes to: it leaves no trace in the folder.
    CTYDatabase(const std::string& path, Mode mode);

    /// Sets how long operations wait for locks of other connections.
    void WaitForLocks(int milliseconds) { sqlite3_busy_timeout(Handle(), milliseconds); }

    void Execute(const char* pSql);
    /// Runs a query.
    /// @return the first column of the first row; 0 if there is no row
    std::int64_t Number(const char* pSql);
    std::int64_t LastId() const { return sqlite3_last_insert_rowid(m_pHandle.get()); }
    /// @return whether the database, its log or the log's index was moved, replaced or deleted
    /// since
    ///         it was opened, so that a commit would be lost. The first call in WAL mode remembers
    ///         which files are in use. Always false in memory.
    bool HasMoved();
    /// @return the paths of the log and its index that still lead to the files in use
    std::vector<std::string> LogFiles() const;
    int Changes() const { return sqlite3_changes(m_pHandle.get()); }
    sqlite3* Handle() const { return m_pHandle.get(); }

  private:
    struct Close {
        void operator()(sqlite3* pHandle) const { sqlite3_close_v2(pHandle); }
    };

    struct FileId {
        dev_t device;
        ino_t inode;
        bool operator==(const FileId&) const = default;
    };

    static std::optional<FileId> IdOf(const std::string& path);
    std::string NameOf(std::size_t logFile) const;

    std::unique_ptr<sqlite3, Close> m_pHandle;
    std::array<std::optional<FileId>, 2> m_LogFiles;  ///< known since the first HasMoved
};

/// A write transaction: rolls back on destruction unless Commit was called. Commit fails with
/// SQLITE_READONLY_DBMOVED if the file has moved: what it writes could not be found again.
class CTYTransaction {
  public:
    explicit CTYTransaction(CTYDatabase& database, const char* pBegin = "BEGIN IMMEDIATE");
    ~CTYTransaction();
    CTYTransaction(const CTYTransaction&) = delete;
    CTYTransaction& operator=(const CTYTransaction&) = delete;

    void Commit();

  private:
    CTYDatabase& m_Database;
    bool m_bOpen = true;
};

/// Binds as BLOB instead of TEXT.
struct TYBlob {
    std::string_view bytes;
};

/// A prepared statement. Values are bound to its parameters in order.
class CTYStatement {
  public:
    CTYStatement(CTYDatabase& database, std::string_view sql);

    /// Binds the values and steps until no row is left.
    template <class... Values>
    void Run(const Values&... values) {
        Begin(values...);
        while (Step()) {
        }
    }

    /// Binds the values; each Step then reads a row. Values are not copied: they must live until
    /// the last step.
    template <class... Values>
    void Begin(const Values&... values) {
        Reset();
        int index = 0;
        (Bind(++index, values), ...);
    }

    /// Binds the values and reads one number.
    /// @return the first column of the first row; nothing if there is no row or it is null
    template <class... Values>
    std::optional<std::int64_t> First(const Values&... values) {
        Begin(values...);
        std::optional<std::int64_t> number;
        if (Step() && !IsNull(0)) {
            number = Int(0);
        }
        Reset();
        return number;
    }

    /// Reads the next row.
    /// @return false after the last row
    bool Step();
    /// Ends the statement and releases its read lock.
    void Reset() { sqlite3_reset(m_pStatement.get()); }

    int Columns() const { return sqlite3_column_count(m_pStatement.get()); }
    const char* Name(int column) const { return sqlite3_column_name(m_pStatement.get(), column); }
    int Type(int column) const { return sqlite3_column_type(m_pStatement.get(), column); }
    bool IsNull(int column) const { return Type(column) == SQLITE_NULL; }
    /// @return the number, limited to 32 bits: a store that somebody edited may hold larger ones
    std::int32_t Int32(int column) const {
        return static_cast<std::int32_t>(
            std::clamp<std::int64_t>(Int(column), INT32_MIN, INT32_MAX));
    }
    std::int64_t Int(int column) const { return sqlite3_column_int64(m_pStatement.get(), column); }
    /// @return the text or blob; valid until the next step
    std::string_view Text(int column) const;

    void Bind(int index, std::int64_t value);
    void Bind(int index, int value) { Bind(index, std::int64_t{value}); }
    void Bind(int index, std::string_view text);
    void Bind(int index, const std::string& text) { Bind(index, std::string_view(text)); }
    void Bind(int index, const char* pText) { Bind(index, std::string_view(pText)); }
    void Bind(int index, TYBlob blob);
    void Bind(int index, std::nullptr_t);
    template <class Value>
    void Bind(int index, const std::optional<Value>& value) {
        value ? Bind(index, *value) : Bind(index, nullptr);
    }

  private:
    struct Finalize {
        void operator()(sqlite3_stmt* pStatement) const { sqlite3_finalize(pStatement); }
    };

    void Check(int result) const;

    CTYDatabase& m_Database;
    std::unique_ptr<sqlite3_stmt, Finalize> m_pStatement;
};

#endif  // TALLYRA_TYDATABASE_H
