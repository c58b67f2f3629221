// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTKIT_ENDSIGNALS_H
#define TALLYRA_TESTKIT_ENDSIGNALS_H

#include <chrono>

/// Keeps SIGINT, SIGTERM and SIGHUP pending, so that the program can put the device's state back
/// before it ends, and ignores SIGPIPE. A signal that the program was started to ignore stays
/// ignored.
///
/// Threads: the main thread, before it starts another.
void HoldEndSignals();

/// Lets a child process receive them again.
void ReleaseEndSignals();

/// Waits for one of the signals, and takes it.
/// @return the signal, or 0 after that time
int AwaitEndSignal(std::chrono::milliseconds time);

#endif  // TALLYRA_TESTKIT_ENDSIGNALS_H
