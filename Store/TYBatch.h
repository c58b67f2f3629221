// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYBATCH_H
#define TALLYRA_TYBATCH_H

#include "TYMediaData.h"
#include "TYPeerIdentity.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// The records of one SendData call.
struct TYBatch {
    TYPeerIdentity sender;
    std::int64_t arrival = 0;  ///< nanoseconds since the epoch
    std::vector<TYMediaData> records;
    std::vector<std::optional<std::string>> urls;  ///< one per record; nullopt if not sent
    /// Bytes that were cut off each URL before; empty if none were.
    std::vector<std::int64_t> urlCuts = {};
};

#endif  // TALLYRA_TYBATCH_H
