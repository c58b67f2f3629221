// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_EXAMPLES_RECORDING_H
#define TALLYRA_EXAMPLES_RECORDING_H

#include <istream>
#include <stdexcept>
#include <string>
#include <vector>

/// One thing that a player did.
struct Step {
    enum class Kind { EVENT, ERROR_REPORT, EXECUTE };

    long long milliseconds = 0;  ///< since the session began
    Kind kind = Kind::EVENT;
    int code = 0;  ///< event, error or free code
    int first = 0;
    int second = 0;
    std::string text;  ///< for EXECUTE
};

/// What was played.
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
    std::vector<Step> steps;  ///< in the order of time
};

/// A line that cannot be understood; the text begins with the source's name and the line's number.
struct RecordingError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Reads a recording, all of it or none.
///
/// A line is empty, a comment that starts with #, one of
///     content url|title|genre|channel|custom TEXT
///     content duration|start|drm|type NUMBER
/// or what happened, with the milliseconds since the session began in front:
///     0 START
///     1500 PLAYBACK_TIME 120
///     1700 ERROR 12
///     1800 EXECUTE 100 4500 bitrate
/// Events have up to two numbers behind them; what is missing is 0. Time never goes backwards, and
/// the content needs a URL.
/// @param name  of the source, for messages
/// @throws RecordingError  for the first line that is wrong
Recording ReadRecording(std::istream& source, const std::string& name);

#endif  // TALLYRA_EXAMPLES_RECORDING_H
