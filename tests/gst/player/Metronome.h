// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_GST_PLAYER_METRONOME_H
#define TALLYRA_TESTS_GST_PLAYER_METRONOME_H

#include <cstdint>
#include <map>
#include <string>
#include <thread>

/// Says when a thread of this process that was due did not run, because the machine or the player
/// was too busy. Neither what the player shows nor what the observer reports is in time then.
///
/// Threads: one of its own.
class CMetronome {
  public:
    CMetronome() : m_Thread([this](const std::stop_token& stop) { Run(stop); }) {}

  private:
    void Run(const std::stop_token& stop);
    /// @return the longest time that a thread has waited for a processor since the last call, in
    ///   microseconds
    std::int64_t LongestWait();

    std::map<std::string, std::int64_t> m_Waits;  ///< of each thread in all, in nanoseconds
    std::jthread m_Thread;
};

#endif  // TALLYRA_TESTS_GST_PLAYER_METRONOME_H
