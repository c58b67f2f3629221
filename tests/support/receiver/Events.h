// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SUPPORT_RECEIVER_EVENTS_H
#define TALLYRA_TESTS_SUPPORT_RECEIVER_EVENTS_H

#include "receiver/Wire.h"

#include <cstdint>
#include <map>
#include <string>
#include <utility>

namespace receiver {

/// Which part made a record.
enum class Origin {
    Reported,   ///< the player, by an event, an error or a free record
    Heartbeat,  ///< the library's collector, a play time every three minutes
    Derived     ///< the library's analyzer, from other records
};

/// @return the name of an event code, as in "PLAYING_TIME", or "CODE 77" for an unnamed code
std::string EventName(std::uint8_t code);

/// @return both parameters with their meaning for the event, as in "position=180000"
std::string DescribeParameters(const Record& record);

/// Tells which part made each record of a stream.
///
/// Codes 21, 22 and 202 count as derived. Code 20 counts as derived directly after a STOP or a
/// PAUSE of the same playback, where the analyzer always adds one, and as a heartbeat anywhere
/// else. A player that reports one of these codes itself cannot be told apart.
///
/// Threads: not synchronised.
class COriginTracker {
  public:
    /// @param record  is the next record in the order of arrival
    Origin Next(const Record& record);

  private:
    // The last event code of each application and playback.
    std::map<std::pair<std::string, std::string>, std::uint8_t> m_lastEvents;
};

}  // namespace receiver

#endif  // TALLYRA_TESTS_SUPPORT_RECEIVER_EVENTS_H
