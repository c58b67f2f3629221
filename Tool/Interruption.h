// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_INTERRUPTION_H
#define TALLYRA_TOOL_INTERRUPTION_H

/// While alive, the first SIGINT or SIGTERM makes Wait() return true, so output can be finished
/// cleanly. The process has one second for that; otherwise, and at the second signal, it dies from
/// the signal. There may be only one object at a time.
///
/// Threads: the main thread; a signal may arrive in any.
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
    int m_nWakeUp;
};

#endif  // TALLYRA_TOOL_INTERRUPTION_H
