// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYDATABASE_H
#define TALLYRA_TYDATABASE_H

#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

/// What SQLite refused, with its extended result code.
class CTYDatabaseError : public std::runtime_error {
  public:
    CTYDatabaseError(int code, const std::string& text) : std::runtime_error(text), m_nCode(code) {}

    int Code() const { return m_nCode; }
    /// @return the code without its refinement, as in SQLITE_FULL
    int Kind() const { return m_nCode & 0xff; }

  private:
    int m_nCode;
};

/// An open database. Every operation throws CTYDatabaseError when SQLite fails.
///
/// Threads: one at a time, together with its statements, which must not outlive it.
class CTYDatabase {
  public:
    enum class Mode { READ_ONLY, READ_WRITE };
    static constexpr int kLockWaitMs = 1000;

    /// Opens a file, or makes it when it may be written; ":memory:" is a database of its own.
    /// A lock of another process is waited for, kLockWaitMs at the most.
    CTYDatabase(const std::string& path, Mode mode);

    /// Changes how long a lock of another process is waited for.
    void WaitForLocks(int milliseconds) { sqlite3_busy_timeout(Handle(), milliseconds); }

    void Execute(const char* pSql);
    /// @return the first column of the first row
    std::int64_t Number(const char* pSql);
    std::int64_t LastId() const { return sqlite3_last_insert_rowid(m_pHandle.get()); }
    int Changes() const { return sqlite3_changes(m_pHandle.get()); }
    sqlite3* Handle() const { return m_pHandle.get(); }

  private:
    struct Close {
        void operator()(sqlite3* pHandle) const { sqlite3_close_v2(pHandle); }
    };

    std::unique_ptr<sqlite3, Close> m_pHandle;
};

/// Everything between construction and Commit happens, or nothing of it does.
class CTYTransaction {
  public:
    explicit CTYTransaction(CTYDatabase& database);
    ~CTYTransaction();
    CTYTransaction(const CTYTransaction&) = delete;
    CTYTransaction& operator=(const CTYTransaction&) = delete;

    void Commit();

  private:
    CTYDatabase& m_Database;
    bool m_bOpen = true;
};

/// Bytes that are no text.
struct TYBlob {
    std::string_view bytes;
};

/// A prepared statement. Values are bound in the order of its parameters.
class CTYStatement {
  public:
    CTYStatement(CTYDatabase& database, std::string_view sql);

    /// Binds the values and runs the statement to its end.
    template <class... Values>
    void Run(const Values&... values) {
        Begin(values...);
        while (Step()) {
        }
    }

    /// Binds the values; Step then hands out the rows. Values must live until the last step.
    template <class... Values>
    void Begin(const Values&... values) {
        Reset();
        int index = 0;
        (Bind(++index, values), ...);
    }

    /// @return whether there is another row
    bool Step();
    /// Ends the statement, and with it what it holds of the database.
    void Reset() { sqlite3_reset(m_pStatement.get()); }

    int Columns() const { return sqlite3_column_count(m_pStatement.get()); }
    const char* Name(int column) const { return sqlite3_column_name(m_pStatement.get(), column); }
    int Type(int column) const { return sqlite3_column_type(m_pStatement.get(), column); }
    bool IsNull(int column) const { return Type(column) == SQLITE_NULL; }
    std::int64_t Int(int column) const { return sqlite3_column_int64(m_pStatement.get(), column); }
    /// @return text or bytes; valid until the next step
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
