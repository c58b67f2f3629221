// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYTHREAD_H
#define TALLYRA_TYTHREAD_H

#include <functional>
#include <thread>

/// Starts a thread of the library in `thread`.
///
/// A thread that `thread` still holds is joined first: replacing one that runs would end the
/// process. The new thread blocks all signals, so that the host's handlers run on the host's own
/// threads, and is scheduled as SCHED_BATCH, so that it does not take the processor from a player
/// that wakes it, whatever priority the caller has. A lack of memory inside `body` is logged and
/// fails an assertion.
///
/// @return false, with an error line, when the system gives no thread
bool StartThread(std::thread& thread, std::function<void()> body);

/// Joins the thread that `thread` holds, if any.
void JoinThread(std::thread& thread);

#endif  // TALLYRA_TYTHREAD_H
