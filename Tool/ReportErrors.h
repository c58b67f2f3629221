// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_REPORTERRORS_H
#define TALLYRA_TOOL_REPORTERRORS_H

#include "ReportJson.h"
#include "TYPlaybackScan.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

/// Counts error records by code, without the library's remarks on the player's calls.
class CReportErrors {
  public:
    static constexpr std::size_t kMostExamples = 5;

    void Add(const TYAnalyzedPlayback& playback);

    /// @return an array of {"code", "name", "records", "playbacks", "fatal", "examples"}, those in
    ///         the most playbacks first. "fatal" counts the failed playbacks in which it was the
    ///         last error; examples are identifiers of playbacks.
    ReportJson Get() const;

  private:
    struct Error {
        std::int64_t records = 0;
        std::int64_t playbacks = 0;
        std::int64_t fatal = 0;
        std::vector<std::string> examples;
    };

    std::map<int, Error> m_Errors;  ///< by code
};

#endif  // TALLYRA_TOOL_REPORTERRORS_H
