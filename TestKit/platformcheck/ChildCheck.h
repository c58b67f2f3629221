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

/// Runs a check in a child process, so that a platform that crashes or hangs is a finding and not
/// the end of this program.
/// @param check     ends the process with a verdict, or returns if the promise holds
/// @param patience  how long a call of the platform may take
/// @throws std::system_error  when no process can be made
Outcome RunInChild(const std::function<void(CProgress&)>& check,
                   std::chrono::milliseconds patience);

#endif  // TALLYRA_TESTKIT_CHILDCHECK_H
