// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_CAPTURE_SESSIONS_H
#define TALLYRA_TESTS_CAPTURE_SESSIONS_H

#include "CapturingBus.h"

/// Plays fixed sessions with every call of the library and every kind of record, with the numbers,
/// times and texts that machines might encode differently.
/// @throws std::runtime_error  when a step fails
void PlaySessions(CCapturingBus& bus);

#endif  // TALLYRA_TESTS_CAPTURE_SESSIONS_H
