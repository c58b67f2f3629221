// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_PLATFORM_STANDARDERROR_H
#define TALLYRA_PLATFORM_STANDARDERROR_H

#include <climits>
#include <cstddef>
#include <string_view>

/// The longest line that a pipe takes whole or not at all.
inline constexpr std::size_t kLongestLine = PIPE_BUF;

/// Writes a line to standard error without blocking the caller and without raising a signal.
///
/// Standard error is the host's: a pipe that nobody reads would block the caller for ever, and one
/// whose reader has gone would kill the host with SIGPIPE. O_NONBLOCK on it would change it for
/// every process that shares it. So a pipe or a terminal is opened a second time, without blocking,
/// for this one line: an own file description that stayed open would keep the pipe's reader from
/// seeing its end. A socket is written with flags of the call. Where the system gives no descriptor
/// the line is written if the pipe has room for it; only another writer that takes this room
/// in between can then block the caller. A regular file never blocks for a reader.
///
/// Threads: any. A cancellation point: the caller disables cancellation.
///
/// @param line  at most kLongestLine bytes; a terminal or a stream socket may still take a part
/// @return 0; -EAGAIN where the line would have to wait; else a negative errno value
int WriteToStandardError(std::string_view line);

#endif  // TALLYRA_PLATFORM_STANDARDERROR_H
