// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_EXAMPLES_RECORDING_H
#define TALLYRA_EXAMPLES_RECORDING_H

#include <istream>
#include <stdexcept>
#include <string>
#include <vector>

/// One report of the recorded player.
struct Step {
    enum class Kind { EVENT, ERROR_REPORT, EXECUTE };

    long long milliseconds = 0;  ///< since the start of the session
    Kind kind = Kind::EVENT;
    int code = 0;  ///< event, error or code of Execute
    int first = 0;
    int second = 0;
    std::string text;  ///< used by EXECUTE
};

/// The content that was played. Fields that the recording does not set keep these defaults.
struct Content {
    std::string url;
    std::string title;
    std::string genre;
    std::string channel;
    std::string customInfo;
    int duration = 0;
    int startTime = 0;
    int drmType = -1;
    int contentType = -1;
};

/// A recorded playback session.
struct Recording {
    Content content;
    std::vector<Step> steps;  ///< ordered by time
};

/// A malformed line. The text begins with the source's name and the number of the line.
struct RecordingError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Reads a complete recording.
///
/// A line is empty, a comment that starts with #, or a field of the content:
///     content url|title|genre|channel|custom TEXT
///     content duration|start|drm|type NUMBER
/// Any other line is a report, after the milliseconds since the start of the session:
///     0 START
///     1500 PLAYBACK_TIME 120
///     1700 ERROR 12
///     1800 EXECUTE 100 4500 bitrate
/// Up to two numbers may follow an event; missing ones are 0. Times must not decrease, and the
/// content must have a URL.
/// @param name  names the source in error messages
/// @throws RecordingError  at the first malformed line
Recording ReadRecording(std::istream& source, const std::string& name);

#endif  // TALLYRA_EXAMPLES_RECORDING_H
