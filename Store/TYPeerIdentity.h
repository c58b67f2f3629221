// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYPEERIDENTITY_H
#define TALLYRA_TYPEERIDENTITY_H

#include <cstdint>
#include <optional>
#include <string>

/// A connection to the bus, with the credentials that the bus driver reports.
struct TYPeerIdentity {
    std::string bus;   ///< GUID of the bus; changes when the bus restarts
    std::string name;  ///< unique name, such as ":1.42"
    std::optional<std::int64_t> uid;
    std::optional<std::int64_t> pid;
};

#endif  // TALLYRA_TYPEERIDENTITY_H
