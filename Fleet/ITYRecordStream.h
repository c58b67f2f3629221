// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_ITYRECORDSTREAM_H
#define TALLYRA_ITYRECORDSTREAM_H

#include "TYMessage.h"
#include "TYStreamState.h"

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

/// The stream of records, as a collector sees it. All operations throw CTYLinkLost.
///
/// Threads: one.
class ITYRecordStream {
  public:
    struct Delivery {
        TYMessage message;
        std::uint64_t times = 1;  ///< how often it was delivered, this time included
    };

    virtual ~ITYRecordStream() = default;

    /// @return messages; none if none came in time. The indices of Acknowledge and Return are those
    ///         in this vector, until the next Fetch.
    virtual std::vector<Delivery> Fetch(std::chrono::milliseconds timeout) = 0;
    /// The message is stored, or was put aside: the stream drops it.
    virtual void Acknowledge(std::size_t index) = 0;
    /// The message is to be delivered again, later.
    virtual void Return(std::size_t index) = 0;

    /// Puts a message that cannot be stored into the stream of bad ones. Returns once it is there.
    virtual void PutAside(const TYMessage& message, const std::string& reason) = 0;

    /// @return how far the stream has been processed
    virtual TYStreamState State() = 0;
};

#endif  // TALLYRA_ITYRECORDSTREAM_H
