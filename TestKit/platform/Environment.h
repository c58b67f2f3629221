// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTKIT_ENVIRONMENT_H
#define TALLYRA_TESTKIT_ENVIRONMENT_H

#include "TestPlatform.h"

/// @return the initial state, as testplatform.h describes it. Reports what is wrong in the
///         environment on standard error.
Answers InitialAnswers();

/// Appends a line to the file that the environment names, if any. Keeps errno, and is no
/// cancellation point.
void WriteToFile(const LogLine& line);

#endif  // TALLYRA_TESTKIT_ENVIRONMENT_H
