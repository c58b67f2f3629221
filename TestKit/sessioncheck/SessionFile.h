// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTKIT_SESSIONFILE_H
#define TALLYRA_TESTKIT_SESSIONFILE_H

#include "TYTimeline.h"

#include <cstddef>
#include <cstdint>
#include <istream>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

/// A record of a player.
struct SessionRecord {
    std::size_t line = 0;         ///< of the file, from 1
    TYTimelineRecord timeline{};  ///< its id is the line
    std::string playback;
    std::string application;
    std::string name;  ///< of the event or error
    std::optional<std::string> url;
    std::int64_t duration = 0;
    int contentType = 0;

    int Code() const { return timeline.event; }
};

/// The records of one playback, in the order of the file. Those that belong to none have an empty
/// name.
struct Playback {
    std::string name;
    std::vector<SessionRecord> records;
};

/// A file that cannot be checked.
struct SessionFileError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Reads JSON lines as `tallyra export` and tallyra-testservice write them.
/// @param name  names the source in errors
/// @return the playbacks in the order of their first records
/// @throws SessionFileError  at a malformed line, and for a file without records
std::vector<Playback> ReadSessions(std::istream& source, const std::string& name);

#endif  // TALLYRA_TESTKIT_SESSIONFILE_H
