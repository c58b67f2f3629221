// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYPOSTGRESCONNECTION_H
#define TALLYRA_TYPOSTGRESCONNECTION_H

#include <memory>
#include <pqxx/pqxx>
#include <stdexcept>
#include <string>

/// PostgreSQL refuses the data of a batch.
class CTYDataRefused : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// The data of a batch are impossible. Neither the database nor a cache has anything of it.
class CTYBadBatch : public std::invalid_argument {
  public:
    using std::invalid_argument::invalid_argument;
};

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
    /// @throws CTYDataRefused          if PostgreSQL refuses the data
    /// @throws CTYDatabaseUnavailable  for all other errors of PostgreSQL and of the connection;
    /// the
    ///                                 next call opens a new one
    /// @throws std::exception          what the function throws; a CTYBadBatch keeps the connection
    template <class Function>
    auto Run(const Function& function) {
        try {
            return function(Open());
        } catch (const CTYBadBatch&) {
            throw;
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
