// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYBUSNAMES_H
#define TALLYRA_TYBUSNAMES_H

/// Address of the collection service on the system bus.
namespace TYBusNames {

inline constexpr const char* kService = "org.veltra.tv.tallyra.service";
inline constexpr const char* kPath = "/org/veltra/tv/tallyra/service";
inline constexpr const char* kInterface = "org.veltra.tv.tallyra.client";
/// The only method. Its first argument names the function to call.
inline constexpr const char* kMethod = "TYCallFunction";

}  // namespace TYBusNames

#endif  // TALLYRA_TYBUSNAMES_H
