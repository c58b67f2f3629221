// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYTYPES_H
#define TALLYRA_TYTYPES_H

#include <cstdint>

/// @file
/// The enumerations that cross the interface, and `TYEventInfo`.
///
/// Each enumeration has `int` as its fixed underlying type, so that a player may pass any value,
/// also one that has no name here. Wherever the library stores one, it keeps a single byte:
/// events, errors and the player's identity as 0 to 255, DRM and content types as -128 to 127.

/// What a player reports through ITYDataCollector::SendMediaEvent.
///
/// The comment behind each value says what the two parameters of `SendMediaEvent` are. Positions
/// and playback times are milliseconds from the start of the content. Any other value is recorded
/// as it is, with both parameters, while a playback lasts.
enum TY_EVENT_TYPE : int {
    /// Begins a playback and makes its identifier. (unused, free)
    TY_EVENT_START = 1,
    /// Ends the playback. (unused, free)
    TY_EVENT_STOP = 2,
    /// Suspends position reports until TY_EVENT_RESUME. (free, unused)
    TY_EVENT_PAUSE = 3,
    /// Buffering began; on Wi-Fi the record carries the signal strength in dBm. (unused, free)
    TY_EVENT_BUFFERING_START = 4,
    /// Buffering ended; the length of the interval is derived by the library. (free, free)
    TY_EVENT_BUFFERING_END = 5,
    /// The first frame is on the screen; the first one of a playback arms position reports.
    /// (free, free)
    TY_EVENT_RENDER_START = 6,
    /// Lifts the suspension of TY_EVENT_PAUSE. (free, free)
    TY_EVENT_RESUME = 7,
    /// A position report, best sent once a second. (position in milliseconds, free)
    TY_EVENT_PLAYBACK_TIME = 8,
    /// A seek began; recorded with the last reported position. (target in milliseconds, unused)
    TY_EVENT_SEEK = 9,
    /// A seek ended; the next position report is recorded. (free, free)
    TY_EVENT_SEEK_COMPLETE = 10,
    /// Play time. Made by the library, every three minutes of position and at pause and stop.
    TY_EVENT_PLAYING_TIME = 20
};

/// Errors. A player may pass any value to ITYDataCollector::SendMediaError, best one from 1 to
/// 255 that is not named here: these are the library's own.
enum TY_ERROR_TYPE : int {
    /// The content's URL was changed during a playback. Logged; then an assertion fails.
    TY_ERROR_URL_CHANGED = 201,
    /// The start and the end of buffering do not pair. Recorded.
    TY_ERROR_BUFFERING_MISMATCH = 202,
    /// TY_EVENT_START during a playback. Recorded.
    TY_ERROR_DUPLICATED_START = 203,
    /// A position report that is more than 189 seconds ahead of the last anchor, or behind it.
    /// Recorded.
    TY_ERROR_PLAYBACK_TIME_JUMP = 204,
    /// TY_EVENT_RENDER_START came again. Logged; the event itself is recorded.
    TY_ERROR_DUPLICATED_RENDER_START = 205
};

/// How the content is protected. The library stores and forwards the value and never reads it;
/// values up to 127 that have no name here are free for the platform's integrator.
enum TY_DRM_TYPE : int {
    TY_DRM_NOT_SET = -1,
    TY_DRM_NONE = 0,
    TY_DRM_PLAYREADY = 1,
    TY_DRM_WIDEVINE = 2,
    TY_DRM_CLEARKEY = 3,
    TY_DRM_OTHER = 100
};

/// What kind of content is played. The library stores and forwards the value and never reads it;
/// values up to 127 that have no name here are free for the platform's integrator.
enum TY_CONTENT_TYPE : int {
    TY_CONTENT_NOT_SET = -1,
    TY_CONTENT_VOD = 0,
    TY_CONTENT_LIVE = 1,
    TY_CONTENT_TIMESHIFT = 2,
    TY_CONTENT_TRAILER = 3,
    TY_CONTENT_ADVERTISEMENT = 4,
    TY_CONTENT_AUDIO = 5,
    TY_CONTENT_OTHER = 100
};

/// Which player reports. Stored as one byte in every record; the library never reads it. Values up
/// to 255 that have no name here are free for the platform's integrator.
enum TY_PLAYER_ID : int {
    TY_PLAYER_UNKNOWN = 0,
    TY_PLAYER_NATIVE = 1,
    TY_PLAYER_WEB = 2,
    TY_PLAYER_ADAPTIVE = 3,
    TY_PLAYER_BROADCAST = 4,
    TY_PLAYER_AUDIO = 5,
    TY_PLAYER_OTHER = 100
};

/// One event or error, as it enters a record.
struct TYEventInfo {
    std::uint8_t event;   ///< a TY_EVENT_TYPE or TY_ERROR_TYPE value, 0 to 255
    std::int32_t param1;  ///< first parameter; what it means depends on the event
    std::int32_t param2;  ///< second parameter; what it means depends on the event
};

#endif  // TALLYRA_TYTYPES_H
