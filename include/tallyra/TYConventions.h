// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYCONVENTIONS_H
#define TALLYRA_TYCONVENTIONS_H

#include "tallyra/TYTypes.h"

/// @file
/// Values that players pass by convention, so that key figures of different players compare.
///
/// The library records these values like any others. The command `tallyra` names them and computes
/// its key figures from them. A player that does not follow a convention loses only the figures
/// that rest on it. docs/conventions.md describes each convention.

/// Why a playback ended: the second parameter of TY_EVENT_STOP.
enum TY_STOP_REASON : int {
    TY_STOP_NOT_TOLD = 0,
    /// The content played to its end.
    TY_STOP_END_OF_CONTENT = 1,
    /// The viewer stopped the playback.
    TY_STOP_USER = 2,
    /// An error ended the playback. Report the error with SendMediaError before the STOP.
    TY_STOP_FATAL_ERROR = 3,
    /// Another content replaced this one, such as the next episode or channel.
    TY_STOP_REPLACED = 4,
    /// The application is closing.
    TY_STOP_APPLICATION_CLOSED = 5
};

/// Why playback stalled: the second parameter of TY_EVENT_BUFFERING_END. The record
/// TY_EVENT_BUFFERING_TIME, which the library derives, keeps it.
enum TY_STALL_CAUSE : int {
    TY_STALL_NOT_TOLD = 0,
    /// Buffering before the first frame.
    TY_STALL_START = 1,
    /// Buffering after a seek.
    TY_STALL_SEEK = 2,
    /// The buffer ran empty during playback.
    TY_STALL_CONNECTION = 3,
    /// The player changed the rendition.
    TY_STALL_RENDITION_SWITCH = 4
};

/// The rendition on the screen changed; also the first one. (bit rate of all tracks in kbit/s,
/// TYFrameSize of the picture, or 0 if unknown)
constexpr TY_EVENT_TYPE TY_EVENT_RENDITION = static_cast<TY_EVENT_TYPE>(30);

/// Frames of the playback so far, at most about once a minute and before STOP.
/// (frames dropped since START, frames rendered since START)
constexpr TY_EVENT_TYPE TY_EVENT_DROPPED_FRAMES = static_cast<TY_EVENT_TYPE>(31);

/// Codes of players' own errors, for SendMediaError: from the first to the last.
constexpr TY_ERROR_TYPE TY_ERROR_FIRST_OF_PLAYER = static_cast<TY_ERROR_TYPE>(206);
constexpr TY_ERROR_TYPE TY_ERROR_LAST_OF_PLAYER = static_cast<TY_ERROR_TYPE>(255);

/// @param width   of the picture in pixels, 0 to 32767
/// @param height  of the picture in pixels, 0 to 65535
/// @return the second parameter of TY_EVENT_RENDITION
constexpr int TYFrameSize(int width, int height) {
    return static_cast<int>((static_cast<unsigned>(width) & 0x7fffU) << 16 |
                            (static_cast<unsigned>(height) & 0xffffU));
}

#endif  // TALLYRA_TYCONVENTIONS_H
