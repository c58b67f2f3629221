// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_ITYFLEETLINK_H
#define TALLYRA_ITYFLEETLINK_H

#include "TYMessage.h"

#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>

/// The connection is lost, or could not be made. The text says why.
class CTYLinkLost : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// A connection to the servers that carry messages. It ends with the first failure; its user then
/// makes another one.
///
/// Threads: one.
class ITYFleetLink {
  public:
    virtual ~ITYFleetLink() = default;

    /// @return a subject on which only this connection receives
    virtual std::string Inbox() = 0;

    /// Messages on the subject are returned by Next.
    /// @throws CTYLinkLost  if the connection ended
    virtual void Subscribe(const std::string& subject) = 0;

    /// Sends a message. Whether it arrives is not known.
    /// @throws CTYLinkLost  if the connection ended
    virtual void Publish(const TYMessage& message) = 0;

    /// @return the next message; nothing if none came in time
    /// @throws CTYLinkLost  if the connection ended, and no message is left
    virtual std::optional<TYMessage> Next(std::chrono::milliseconds timeout) = 0;
};

#endif  // TALLYRA_ITYFLEETLINK_H
