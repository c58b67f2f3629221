// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_INTERRUPTION_H
#define TALLYRA_TOOL_INTERRUPTION_H

/// While it lives, SIGINT and SIGTERM end no more than what asks for them, so that the output can
/// be brought to its end.
///
/// Threads: the main one, of a process without others.
class CInterruption {
  public:
    /// @throws std::system_error
    CInterruption();
    ~CInterruption();
    CInterruption(const CInterruption&) = delete;
    CInterruption& operator=(const CInterruption&) = delete;

    /// Waits for that long, or until there is reason to end. When nobody reads the standard output
    /// any more that is what SIGPIPE is for: it is raised, as a write would.
    /// @return whether there is reason to end
    bool Wait(int milliseconds) const;

  private:
    int m_nSignals = -1;
};

#endif  // TALLYRA_TOOL_INTERRUPTION_H
