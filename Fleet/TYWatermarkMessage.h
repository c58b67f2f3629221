// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYWATERMARKMESSAGE_H
#define TALLYRA_TYWATERMARKMESSAGE_H

#include "TYStreamState.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// What a collector tells a device: how far its store is in the database. As an answer to a
/// question it also says how far the stream has been processed. The text is "<epoch> <stored>", or
/// "<epoch> <stored> <sequence> <stream>".
struct TYWatermarkMessage {
    std::string epoch;
    std::int64_t stored = 0;
    std::optional<TYStreamState> stream = std::nullopt;

    std::string Text() const;
    /// @return nothing if the text is none of these
    static std::optional<TYWatermarkMessage> Parse(std::string_view text);
};

#endif  // TALLYRA_TYWATERMARKMESSAGE_H
