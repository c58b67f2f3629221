// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYPOSTGRESCONNECTION_H
#define TALLYRA_TYPOSTGRESCONNECTION_H

#include <memory>
#include <pqxx/pqxx>
#include <string>

/// A connection to PostgreSQL that is opened when it is needed, and again after a failure.
///
/// Threads: one.
class CTYPostgresConnection {
  public:
    /// @param url  postgresql://...; parameters that it does not have get defaults, so that a
    ///             server that does not answer costs at most half a minute
    /// @param pName  of this program, for the administrator of the database
    CTYPostgresConnection(const std::string& url, const char* pName);

    /// Calls function(pqxx::connection&). Never calls it twice.
    /// @throws CTYDatabaseUnavailable  if the database is down, full, locked or has closed the
    ///                                 connection; the next call opens a new one
    /// @throws std::runtime_error      for all other errors of PostgreSQL
    template <class Function>
    auto Run(const Function& function) {
        try {
            return function(Open());
        } catch (...) {
            m_pConnection.reset();
            Rethrow();
        }
    }

    /// @return a text in which *** stands for the URL's password
    std::string WithoutPassword(std::string text) const;

  private:
    pqxx::connection& Open();
    [[noreturn]] void Rethrow() const;

    const std::string m_strUrl;
    const std::string m_strPassword;  ///< empty: the URL has none
    std::unique_ptr<pqxx::connection> m_pConnection;
};

#endif  // TALLYRA_TYPOSTGRESCONNECTION_H
