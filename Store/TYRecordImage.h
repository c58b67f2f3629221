// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYRECORDIMAGE_H
#define TALLYRA_TYRECORDIMAGE_H

#include "TYMediaData.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

/// The texts of a record, bounded by their fields and made valid UTF-8.
struct TYRecordTexts {
    std::string playbackID;
    std::string serviceVersion;
    std::string serviceID;
    std::string channelID;
    std::string title;
    std::string genre;
    std::string customInfo;
};

/// @return the record whose image this is; nothing when it has another size
std::optional<TYMediaData> RecordFromImage(std::string_view image);

/// @return the 4800 bytes of a record
std::string_view ImageOf(const TYMediaData& record);

TYRecordTexts TextsOf(const TYMediaData& record);

/// @return whether each text but the playback's identifier, which may fill its field, ends in a NUL
bool HasTerminatedTexts(const TYMediaData& record);

/// @return the text with each byte that is not UTF-8 replaced by U+FFFD, up to its first NUL
std::string ValidText(std::string_view text);

/// What the records of a run have in common: all of the image but event, parameters and time, with
/// the zeros at its end left out. In most records nothing else is left of the 4800 bytes.
std::string CommonPart(const TYMediaData& record);

/// @return whether that is the record's common part; takes less than making it
bool HasCommonPart(const TYMediaData& record, std::string_view common);

/// @return a record with that common part, everything else zero; nothing when it is none
std::optional<TYMediaData> RecordFromCommonPart(std::string_view common);

#endif  // TALLYRA_TYRECORDIMAGE_H
