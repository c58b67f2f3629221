// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_FAULTS_QUIETPLATFORM_H
#define TALLYRA_TESTS_FAULTS_QUIETPLATFORM_H

/// A platform that needs no memory, for hosts that have none: everything works, and each log line
/// goes to standard error as "priority tag text" at once.
class CQuietPlatform {
  public:
    /// Waits, for ten seconds at the most, until a collector delivers or has given up.
    static void AwaitDecision();
    /// Forgets that decision: another collector comes.
    static void Forget();
    /// Sets the key and calls who watches it, on the calling thread. An exception that came out of
    /// that would end the process.
    static void ChangeKey(int value) noexcept;
};

#endif  // TALLYRA_TESTS_FAULTS_QUIETPLATFORM_H
