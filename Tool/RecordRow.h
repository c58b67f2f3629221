// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_RECORDROW_H
#define TALLYRA_TOOL_RECORDROW_H

#include "Rows.h"
#include "TYMediaData.h"

#include <cstdint>
#include <string>
#include <vector>

/// All that is known of a record. What only a store knows is empty for a record from an image.
struct RecordFields {
    Cell id;
    Cell arrival;
    std::int64_t time = 0;  ///< nanoseconds since the epoch
    Cell sender;
    Cell uid;
    Cell pid;
    std::string application;
    std::string version;
    std::string playback;
    int player = 0;   ///< 0 to 255
    int network = 0;  ///< TY_NETWORK_TYPE
    int code = 0;
    std::int64_t param1 = 0;
    std::int64_t param2 = 0;
    std::string title;
    Cell url;
    Cell urlCut;  ///< bytes by which the URL was cut
    std::int64_t duration = 0;
    int drm = 0;      ///< TY_DRM_TYPE
    int content = 0;  ///< TY_CONTENT_TYPE
    std::string channel;
    std::string genre;
    std::string customInfo;
};

/// @return the value of a byte that was sent as signed
constexpr int SignedByte(std::int64_t byte) {
    constexpr int kValues = 256;
    const int value = static_cast<int>(byte & (kValues - 1));
    return value < kValues / 2 ? value : value - kValues;
}

RecordFields FieldsOf(const TYMediaData& record);

/// @return the names of a record's fields in JSON and CSV, the same for every command
std::vector<std::string> RecordColumns();

/// @return the cells below RecordColumns: the names of codes and types beside their numbers, and
///         the parameters in words
Row RecordRow(RecordFields fields);
/// @param what  instead of the parameters in words
Row RecordRow(RecordFields fields, std::string what);

#endif  // TALLYRA_TOOL_RECORDROW_H
