// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_CAPTURE_SESSIONS_H
#define TALLYRA_TESTS_CAPTURE_SESSIONS_H

#include "doubles/FakeBus.h"

/// Plays fixed sessions that make every call there is, with every kind of record in them and the
/// numbers, times and texts at which one machine might differ from another.
///
/// @throw std::runtime_error  when one does not go as planned
void PlaySessions(CFakeBus& bus);

#endif  // TALLYRA_TESTS_CAPTURE_SESSIONS_H
