// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SOAK_SOAKSERVICE_H
#define TALLYRA_TESTS_SOAK_SOAKSERVICE_H

#include "ChildProcess.h"
#include "TYDbusClient.h"

#include <filesystem>
#include <optional>
#include <string>

/// A receiving service in a process of its own, whose memory is not that of the library.
///
/// Threads: the one that made it.
class CSoakService {
  public:
    /// What the services that ended so far had got.
    struct Totals {
        long records = 0;
        long stops = 0;
        long problems = 0;
    };

    /// @param program  this program's path
    /// @param address  of the bus, which has to be the system bus of this process
    CSoakService(std::string program, std::string address, std::filesystem::path file);

    /// Starts it, and waits until it has its name.
    void Start();
    /// Ends it, and adds what it had got.
    void Stop();

    const Totals& Got() const { return m_Totals; }

    /// What the process does: serves until it is told to end, then writes what it had got.
    /// @return its exit status
    static int Serve(const std::string& address, const std::string& file);

  private:
    const std::string m_strProgram;
    const std::string m_strAddress;
    const std::filesystem::path m_File;
    CDbusClient m_Watcher;
    std::optional<CChildProcess> m_Process;
    Totals m_Totals;
};

#endif  // TALLYRA_TESTS_SOAK_SOAKSERVICE_H
