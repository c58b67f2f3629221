// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_PLATFORM_STANDARDERROR_H
#define TALLYRA_PLATFORM_STANDARDERROR_H

#include <climits>
#include <cstddef>
#include <string_view>

/// The longest write that a pipe takes entirely or not at all.
inline constexpr std::size_t kLongestLine = PIPE_BUF;

/// Writes a line to standard error without blocking the caller and without raising a signal.
///
/// Threads: any. A cancellation point: the caller disables cancellation.
///
/// @param line  at most kLongestLine bytes; a terminal or a stream socket may take only a part
/// @return 0 on success, -EAGAIN if the write would block, else another negative errno value
int WriteToStandardError(std::string_view line);

#endif  // TALLYRA_PLATFORM_STANDARDERROR_H
