// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYLIMITS_H
#define TALLYRA_TYLIMITS_H

#include <cstddef>

/// Limits that more than one class of the library uses.
namespace TYLimits {

/// Reply timeout of a call to the service or to the bus. Only Kick has its own. The default of
/// libdbus is 25 s.
inline constexpr int kReplyTimeoutMs = 3000;

/// Records that may wait in a queue that nothing empties: the sender's while the service is absent,
/// the analyzer's when it has no thread.
inline constexpr std::size_t kMaxWaitingRecords = 200;

}  // namespace TYLimits

#endif  // TALLYRA_TYLIMITS_H
