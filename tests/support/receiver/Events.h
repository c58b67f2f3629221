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

/// Who made a record.
enum class Origin {
    Reported,   ///< an event, error or free record of the player, as the library recorded it
    Heartbeat,  ///< a play time that the library's collector makes every three minutes
    Derived     ///< made by the library's analyzer out of other records
};

/// @return the readable name of an event code, as in "PLAYING_TIME"; "CODE 77" for a code without
std::string EventName(std::uint8_t code);

/// @return both parameters with what they mean for the event, as in "position=180000"
std::string DescribeParameters(const Record& record);

/// Tells who made each record of a stream.
///
/// Codes 21, 22 and 202 are always taken for the analyzer's. Code 20 comes from two places: it is
/// taken for the analyzer's when it is the record directly behind a STOP or a PAUSE of the same
/// playback, where the analyzer always puts one, and for a heartbeat anywhere else. A player that
/// reports one of these codes by itself cannot be told apart.
///
/// Threads: not synchronised.
class COriginTracker {
  public:
    /// @param record  the next one in the order of arrival
    Origin Next(const Record& record);

  private:
    // The last event code of each application and playback.
    std::map<std::pair<std::string, std::string>, std::uint8_t> m_lastEvents;
};

}  // namespace receiver

#endif  // TALLYRA_TESTS_SUPPORT_RECEIVER_EVENTS_H
