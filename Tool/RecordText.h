// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_RECORDTEXT_H
#define TALLYRA_TOOL_RECORDTEXT_H

#include <cstdint>
#include <string>

/// @return the parameters of a record in words, such as "at 1:00.000, by user" for a STOP; values
///         of the conventions have their names. Other events: both numbers, unless both are 0.
std::string DescribeRecord(int event, std::int64_t param1, std::int64_t param2);

/// @return the reason of a STOP in words; empty if it is not told, "reason 9" for an unknown one
std::string DescribeReason(std::int64_t reason);

#endif  // TALLYRA_TOOL_RECORDTEXT_H
