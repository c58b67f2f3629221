// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTKIT_CONTRACT_H
#define TALLYRA_TESTKIT_CONTRACT_H

#include "SessionFile.h"

#include <cstddef>
#include <string>
#include <vector>

/// What a player does wrong.
struct Complaint {
    std::vector<std::size_t> lines;  ///< of the records that show it
    std::string text;                ///< what is wrong, and what to change
};

using Complaints = std::vector<Complaint>;

/// @return whether a record of this event carries the last reported position as first parameter
constexpr bool HasLastPosition(int code) {
    return code == TY_EVENT_PAUSE || code == TY_EVENT_BUFFERING_START || code == TY_EVENT_SEEK ||
           code == TY_EVENT_STOP;
}

/// Checks the order of the events of a playback: START first, STOP last, pairs.
void CheckOrder(const Playback& playback, Complaints& complaints);

/// Checks that positions are reported often, in milliseconds, and with a SEEK before each jump.
void CheckPositions(const Playback& playback, Complaints& complaints);

/// Checks codes and parameters, the URL and the application.
void CheckValues(const Playback& playback, Complaints& complaints);

/// @return all complaints about a playback, in the order of lines
Complaints CheckPlayback(const Playback& playback);

#endif  // TALLYRA_TESTKIT_CONTRACT_H
