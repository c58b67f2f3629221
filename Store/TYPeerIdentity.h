// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYPEERIDENTITY_H
#define TALLYRA_TYPEERIDENTITY_H

#include <cstdint>
#include <optional>
#include <string>

/// A connection to the bus, as the bus driver describes it.
struct TYPeerIdentity {
    std::string bus;   ///< identifier of the bus, new with each of its starts
    std::string name;  ///< unique name, as in ":1.42"
    std::optional<std::int64_t> uid;
    std::optional<std::int64_t> pid;
};

#endif  // TALLYRA_TYPEERIDENTITY_H
