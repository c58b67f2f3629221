// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYMESSAGE_H
#define TALLYRA_TYMESSAGE_H

#include <string>
#include <utility>
#include <vector>

/// A message on NATS.
struct TYMessage {
    std::string subject;
    std::string reply{};  ///< subject for an answer; empty if none is expected
    std::vector<std::pair<std::string, std::string>> headers{};
    std::string body{};

    /// @return the value of a header; empty if it is missing
    std::string Header(const std::string& name) const {
        for (const auto& [key, value] : headers) {
            if (key == name) {
                return value;
            }
        }
        return {};
    }

    /// @return bytes that it takes on the wire, without the protocol's own
    std::size_t Size() const {
        std::size_t size = subject.size() + reply.size() + body.size();
        for (const auto& [name, value] : headers) {
            size += name.size() + value.size() + 4;
        }
        return size;
    }
};

#endif  // TALLYRA_TYMESSAGE_H
