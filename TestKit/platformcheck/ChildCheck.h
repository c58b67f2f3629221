// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTKIT_CHILDCHECK_H
#define TALLYRA_TESTKIT_CHILDCHECK_H

#include "Progress.h"

#include <chrono>
#include <functional>
#include <string>

/// The result of a check.
struct Outcome {
    Verdict verdict = Verdict::NOT_ENDED;
    std::string text;  ///< what was seen, or why it was not tried
};

/// A signal that has ended a check.
struct Interruption {
    int signal = 0;
};

/// Whether a check ends at a signal, or the signal stays pending until it has ended.
enum class AtSignal { END, GO_ON };

/// Runs a check in a child process, so that a platform that crashes or hangs is a finding and not
/// the end of this program.
/// @param check     ends the process with a verdict, or returns if the promise holds
/// @param patience  how long a call of the platform may take
/// @throws Interruption       at a signal, after the check and its commands have been killed
/// @throws std::system_error  when no process can be made
Outcome RunInChild(const std::function<void(CProgress&)>& check, std::chrono::milliseconds patience,
                   AtSignal atSignal);

#endif  // TALLYRA_TESTKIT_CHILDCHECK_H
