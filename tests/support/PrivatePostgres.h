// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SUPPORT_PRIVATEPOSTGRES_H
#define TALLYRA_TESTS_SUPPORT_PRIVATEPOSTGRES_H

#include "ChildProcess.h"
#include "TemporaryFolder.h"

#include <memory>
#include <string>

/// A PostgreSQL server of a test's own, which only this machine reaches, by a socket in a temporary
/// folder. Its databases go with it.
///
/// Root starts it as the user "postgres" or "nobody", since the server refuses to run as root.
///
/// Threads: one; start it on the main thread, see CChildProcess.
class CPrivatePostgres {
  public:
    enum class Disk {
        IGNORED,  ///< never waits for the disk
        WAITED,   ///< waits for the disk with each commit, as servers do
    };

    /// @return whether this machine has the programs of the server
    static bool IsInstalled();

    /// Starts the server and waits until it answers.
    /// @throws std::runtime_error  if it does not
    explicit CPrivatePostgres(Disk disk = Disk::IGNORED);
    ~CPrivatePostgres();

    /// @return the URL of a database, for the owner of the server
    std::string Url(const std::string& database = "postgres") const;

    /// Makes an empty database.
    /// @throws std::runtime_error  if that fails
    void CreateDatabase(const std::string& name) const;

    pid_t Pid() const { return m_pServer->Pid(); }
    /// Ends the server as a crash does, and starts it again.
    void Restart();

  private:
    void Start();
    bool Runs(const std::string& program, std::vector<std::string> arguments) const;
    std::vector<std::string> CommandOf(const std::string& program) const;

    const Disk m_Disk;
    const CTemporaryFolder m_Folder;
    std::unique_ptr<CChildProcess> m_pServer;
};

#endif  // TALLYRA_TESTS_SUPPORT_PRIVATEPOSTGRES_H
