// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SERVICE_PLAYBACKMAKERS_H
#define TALLYRA_TESTS_SERVICE_PLAYBACKMAKERS_H

#include "Sessions.h"

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

/// The part of a record that differs within a playback.
struct PlaybackRecord {
    std::string playback;
    std::int64_t time;  ///< milliseconds since the epoch
    int event;
    std::int32_t param1;
    std::int32_t param2;
};

using Playback = std::vector<PlaybackRecord>;

/// @param number  tells playbacks apart
/// @return what the library records of a recorded session
Playback RecordedPlayback(const std::filesystem::path& recording, int number);

/// @return a playback as viewers cause it
Playback ViewedPlayback(CDice& dice, int number);

/// @return what the library records of a player that calls it in any order; the START or other
///         records may be lost
Playback ShuffledPlayback(CDice& dice, int number);

/// @return records with any event, parameters and times
Playback HostilePlayback(CDice& dice, int number);

#endif  // TALLYRA_TESTS_SERVICE_PLAYBACKMAKERS_H
