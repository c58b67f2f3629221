// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYRECORDIMAGE_H
#define TALLYRA_TYRECORDIMAGE_H

#include "TYMediaData.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

/// The texts of a record, cut at the end of their fields and converted to valid UTF-8.
struct TYRecordTexts {
    std::string playbackID;
    std::string serviceVersion;
    std::string serviceID;
    std::string channelID;
    std::string title;
    std::string genre;
    std::string customInfo;
};

/// @return the record with this image; nothing unless the image has 4800 bytes
std::optional<TYMediaData> RecordFromImage(std::string_view image);

/// @return the 4800 bytes of a record; valid as long as the record
std::string_view ImageOf(const TYMediaData& record);

TYRecordTexts TextsOf(const TYMediaData& record);

/// @return whether every text is NUL-terminated. The playback identifier is not checked: it may
///         fill its field.
bool HasTerminatedTexts(const TYMediaData& record);

/// @return the text up to its first NUL, each invalid byte replaced by U+FFFD
std::string ValidText(std::string_view text);

/// @return the bytes that all records of a run share: the image without event, parameters, padding
///         and time, and without trailing zeros. Six numbers hold the rest of a record.
std::string CommonPart(const TYMediaData& record);

/// @return whether CommonPart(record) == common, without building it
bool HasCommonPart(const TYMediaData& record, std::string_view common);

/// @return a record with this common part and zeros elsewhere; nothing if the part is too long
std::optional<TYMediaData> RecordFromCommonPart(std::string_view common);

#endif  // TALLYRA_TYRECORDIMAGE_H
