// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYMEDIADATA_H
#define TALLYRA_TYMEDIADATA_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>

/// A reading of the real-time clock, with 32 bits per field even where `time_t` is wider. Both
/// fields are zero if the clock could not be read.
struct TYTime {
    std::int32_t sec;   ///< seconds since the epoch
    std::int32_t nsec;  ///< nanoseconds within the second, 0 to 999,999,999
};

/// The part of a record that describes the content. It is copied into every record as one block.
/// Texts are NUL-terminated and truncated to their field.
struct TYContentBlock {
    std::int32_t duration;
    std::uint32_t pUrl;  ///< always zero, so that no host address is sent; see TYMediaRecord
    std::uint8_t drmType;
    std::uint8_t contentType;
    char channelID[256];
    char title[256];
    char genre[68];
    char customInfo[4096];
    char padding[2];
};

/// One record as it is sent: this layout is the image on the wire on every platform. All padding is
/// declared, so that the library writes every byte of the image.
struct TYMediaData {
    std::int8_t playerID;
    std::uint8_t networkType;  ///< CTYNetworkManager::m_NetworkType; unknown (-1) arrives as 255
    char playbackID[25];       ///< may fill the field without a NUL; read at most 25 characters
    char serviceVersion[12];
    char serviceID[50];
    char padding1[3];
    std::uint8_t event;
    char padding2[3];
    std::int32_t param1;
    std::int32_t param2;
    TYContentBlock content;
    TYTime time;
};

static_assert(sizeof(TYTime) == 8);
static_assert(sizeof(TYContentBlock) == 4688);
static_assert(sizeof(TYMediaData) == 4800);
static_assert(offsetof(TYMediaData, playerID) == 0);
static_assert(offsetof(TYMediaData, networkType) == 1);
static_assert(offsetof(TYMediaData, playbackID) == 2);
static_assert(offsetof(TYMediaData, serviceVersion) == 27);
static_assert(offsetof(TYMediaData, serviceID) == 39);
static_assert(offsetof(TYMediaData, event) == 92);
static_assert(offsetof(TYMediaData, param1) == 96);
static_assert(offsetof(TYMediaData, param2) == 100);
static_assert(offsetof(TYMediaData, content) == 104);
static_assert(offsetof(TYMediaData, content.pUrl) == 108);
static_assert(offsetof(TYMediaData, content.drmType) == 112);
static_assert(offsetof(TYMediaData, content.contentType) == 113);
static_assert(offsetof(TYMediaData, content.channelID) == 114);
static_assert(offsetof(TYMediaData, content.title) == 370);
static_assert(offsetof(TYMediaData, content.genre) == 626);
static_assert(offsetof(TYMediaData, content.customInfo) == 694);
static_assert(offsetof(TYMediaData, time) == 4792);
static_assert(std::is_trivially_copyable_v<TYMediaData>);
static_assert(std::has_unique_object_representations_v<TYMediaData>, "hidden padding");

/// An immutable URL, which all records of one content share.
using TYUrl = std::shared_ptr<const std::string>;

/// A record in the pipeline: the image and its URL. The URL is kept outside the image, because the
/// image has only four bytes for it, too few for a pointer on most machines.
///
/// Ownership: a heap object, owned by the pipeline stage that holds it. The URL is freed with the
/// last record or content that shares it.
struct TYMediaRecord : TYMediaData {
    /// Selects the constructor that leaves the image unwritten.
    struct Unwritten {};

    /// Zeroes the image; the URL is empty.
    TYMediaRecord() : TYMediaData{} {}

    /// Leaves the image uninitialised; the caller must write every byte. Zeroing it first would
    /// cost the player's thread 4800 bytes per event.
    explicit TYMediaRecord(Unwritten /*tag*/) {}

    std::string_view Url() const { return pUrl == nullptr ? std::string_view("") : *pUrl; }

    /// Null is an empty URL.
    TYUrl pUrl;
};

/// Fills `bytes` with zeros.
template <std::size_t Size>
void FillWithZeros(char (&bytes)[Size]) {
    std::fill(bytes, bytes + Size, '\0');
}

/// Copies `from` up to its first NUL, at most Size - 1 bytes, and fills the rest of `to` with NULs.
template <std::size_t Size>
void CopyText(char (&to)[Size], const char* from) {
    const std::size_t length = strnlen(from, Size - 1);
    std::fill(std::copy_n(from, length, to), to + Size, '\0');
}

#endif  // TALLYRA_TYMEDIADATA_H
