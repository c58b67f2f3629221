// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_REMOVALONSIGNAL_H
#define TALLYRA_TOOL_REMOVALONSIGNAL_H

#include <array>
#include <csignal>
#include <string>

/// While alive, SIGHUP, SIGINT and SIGTERM delete a file before they kill the process. Signals that
/// the process ignores stay ignored. There may be only one object at a time.
///
/// Threads: one; a signal may arrive in any.
class CRemovalOnSignal {
  public:
    CRemovalOnSignal();
    ~CRemovalOnSignal();
    CRemovalOnSignal(const CRemovalOnSignal&) = delete;
    CRemovalOnSignal& operator=(const CRemovalOnSignal&) = delete;

    /// Creates a file as mkostemp does.
    /// @param name  ends with XXXXXX; becomes the file's name
    /// @return its descriptor; -1 with errno if it cannot be created
    int CreateTemporary(std::string& name);

  private:
    static constexpr std::array<int, 3> kSignals{SIGHUP, SIGINT, SIGTERM};

    sigset_t m_Signals{};
    std::array<struct sigaction, kSignals.size()> m_Before{};
};

#endif  // TALLYRA_TOOL_REMOVALONSIGNAL_H
