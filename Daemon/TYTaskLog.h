// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYTASKLOG_H
#define TALLYRA_TYTASKLOG_H

#include "TYDatabase.h"

#include <array>
#include <cstddef>
#include <cstdint>

/// What a keeper does with its store.
enum class TYTask { OPEN, ADD, POLICY, PRUNE, LOSSES, RECOVER, COUNT };

/// Logs the first error of each kind for each task, and that the task works again. Errors in
/// between are not logged, so that a player that calls repeatedly cannot flood the log.
///
/// Threads: one.
class CTYTaskLog {
  public:
    /// Logs an error unless one of its kind was logged since the task last succeeded.
    /// @return whether it was logged
    bool Fail(TYTask task, const CTYDatabaseError& error);

    /// Logs that the task works again, if an error was logged.
    /// @return whether an error was logged
    bool Succeed(TYTask task);

    /// Does that without a line.
    void SucceedSilently(TYTask task) { Reported(task) = 0; }

  private:
    std::uint64_t& Reported(TYTask task) { return m_Reported.at(static_cast<std::size_t>(task)); }

    // For each task, one bit for each kind of error.
    std::array<std::uint64_t, static_cast<std::size_t>(TYTask::COUNT)> m_Reported{};
};

#endif  // TALLYRA_TYTASKLOG_H
