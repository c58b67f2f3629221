// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYSTREAMSTATE_H
#define TALLYRA_TYSTREAMSTATE_H

#include <cstdint>
#include <string>

/// How far the stream of records has been processed. A stream may be lost and made again: its
/// sequence numbers then start at 1 again.
struct TYStreamState {
    std::string id;                  ///< differs between a stream and the one made after it
    std::int64_t processedUpTo = 0;  ///< all its messages up to this sequence were processed
};

#endif  // TALLYRA_TYSTREAMSTATE_H
