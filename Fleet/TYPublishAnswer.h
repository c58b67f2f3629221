// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYPUBLISHANSWER_H
#define TALLYRA_TYPUBLISHANSWER_H

#include "TYMessage.h"

#include <cstddef>
#include <cstdint>
#include <string>

/// What the servers say to a part of a batch. They answer on the subject that the message named.
struct TYPublishAnswer {
    std::int64_t first = 0;      ///< of the batch
    std::size_t part = 0;        ///< of the batch
    std::uint64_t sequence = 0;  ///< in the stream
    std::string refusal{};       ///< why the stream does not take it; empty if it does

    /// @return the subject for the answer to a part
    static std::string Subject(const std::string& inbox, std::int64_t first, std::size_t part);
    static TYPublishAnswer Parse(const TYMessage& message, const std::string& inbox);
};

#endif  // TALLYRA_TYPUBLISHANSWER_H
