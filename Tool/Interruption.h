// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_INTERRUPTION_H
#define TALLYRA_TOOL_INTERRUPTION_H

/// While alive, SIGINT and SIGTERM only make Wait() return true, so output can be finished cleanly.
///
/// Threads: the main thread of a single-threaded process.
class CInterruption {
  public:
    /// @throws std::system_error
    CInterruption();
    ~CInterruption();
    CInterruption(const CInterruption&) = delete;
    CInterruption& operator=(const CInterruption&) = delete;

    /// Waits for a signal, at most for the given time. Raises SIGPIPE if standard output has lost
    /// its reader, as a write would.
    /// @return whether to stop
    bool Wait(int milliseconds) const;

  private:
    int m_nSignals = -1;
};

#endif  // TALLYRA_TOOL_INTERRUPTION_H
