// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTKIT_ENVIRONMENT_H
#define TALLYRA_TESTKIT_ENVIRONMENT_H

#include "TestPlatform.h"

#include <cstdio>

/// @return the initial state, as testplatform.h describes it. Reports what is wrong in the
///         environment on standard error.
Answers InitialAnswers();

/// @return the file that the environment names for the log; null if there is none
std::FILE* OpenLogFile();

/// Writes a line to the file. It is no cancellation point.
void WriteLine(std::FILE* pFile, const LogLine& line);

#endif  // TALLYRA_TESTKIT_ENVIRONMENT_H
