// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_SERVICESTATE_H
#define TALLYRA_TOOL_SERVICESTATE_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// What a bus and the kernel tell about tallyra-service.
struct ServiceState {
    std::string bus;                       ///< the address that was asked
    std::string error;                     ///< why the bus told nothing; empty if it answered
    std::optional<pid_t> pid{};            ///< of the service's process, if there is one
    std::optional<std::int64_t> since{};   ///< its start, in nanoseconds since the epoch
    std::vector<std::string> arguments{};  ///< its command line, if it may be read
    std::optional<std::string> store{};    ///< the path of its store, if that can be known

    /// @return the value of an option in the command line; empty if it is not there
    std::optional<std::string> Argument(const std::string& option) const;
    /// @return whether the command line has an option that takes no value
    bool HasFlag(const std::string& option) const;
};

/// Asks a bus for the service. Takes at most about 2 s, and never starts the service.
/// @param address  empty for the system bus, which DBUS_SYSTEM_BUS_ADDRESS may name
ServiceState FindService(const std::string& address);

#endif  // TALLYRA_TOOL_SERVICESTATE_H
