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
    /// The player does not say why.
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
    /// The player does not say why.
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

/// The rendition on the screen changed; also the first one. (bit rate of all tracks in kbit/s, or 0
/// if unknown; TYFrameSize of the picture, or 0 if unknown)
constexpr TY_EVENT_TYPE TY_EVENT_RENDITION = static_cast<TY_EVENT_TYPE>(30);

/// Frames of the playback so far, at most about once a minute and before STOP.
/// (frames dropped since START, frames rendered since START)
constexpr TY_EVENT_TYPE TY_EVENT_DROPPED_FRAMES = static_cast<TY_EVENT_TYPE>(31);

/// The first code of players' own errors, for SendMediaError.
constexpr TY_ERROR_TYPE TY_ERROR_FIRST_OF_PLAYER = static_cast<TY_ERROR_TYPE>(206);
/// The last code of players' own errors.
constexpr TY_ERROR_TYPE TY_ERROR_LAST_OF_PLAYER = static_cast<TY_ERROR_TYPE>(255);

// Errors that different players have in common. All other codes of players' own errors are free.

/// The server or the system denied access, as with HTTP status 401 or 403.
constexpr TY_ERROR_TYPE TY_ERROR_ACCESS_DENIED = static_cast<TY_ERROR_TYPE>(215);
/// The content or a part of it does not exist, as with HTTP status 404 or 410.
constexpr TY_ERROR_TYPE TY_ERROR_NOT_FOUND = static_cast<TY_ERROR_TYPE>(216);
/// The server refused a request for another reason: any other HTTP status from 400 to 499.
constexpr TY_ERROR_TYPE TY_ERROR_REQUEST_REFUSED = static_cast<TY_ERROR_TYPE>(217);
/// The server failed: HTTP status 500 to 599.
constexpr TY_ERROR_TYPE TY_ERROR_SERVER_FAILED = static_cast<TY_ERROR_TYPE>(218);
/// The content could not be opened; without an HTTP status, the server could not be reached.
constexpr TY_ERROR_TYPE TY_ERROR_OPEN_FAILED = static_cast<TY_ERROR_TYPE>(219);
/// Reading the content failed, or the connection was lost.
constexpr TY_ERROR_TYPE TY_ERROR_READ_FAILED = static_cast<TY_ERROR_TYPE>(220);
/// The format of the content is unknown or not supported.
constexpr TY_ERROR_TYPE TY_ERROR_FORMAT_UNKNOWN = static_cast<TY_ERROR_TYPE>(221);
/// A decoder or another component for the content is missing.
constexpr TY_ERROR_TYPE TY_ERROR_CODEC_MISSING = static_cast<TY_ERROR_TYPE>(222);
/// Decoding failed.
constexpr TY_ERROR_TYPE TY_ERROR_DECODE_FAILED = static_cast<TY_ERROR_TYPE>(223);
/// The container or the manifest could not be parsed.
constexpr TY_ERROR_TYPE TY_ERROR_DEMUX_FAILED = static_cast<TY_ERROR_TYPE>(224);
/// Decrypting failed, or there is no key.
constexpr TY_ERROR_TYPE TY_ERROR_DECRYPT_FAILED = static_cast<TY_ERROR_TYPE>(225);
/// The stream failed in another way.
constexpr TY_ERROR_TYPE TY_ERROR_STREAM_FAILED = static_cast<TY_ERROR_TYPE>(226);
/// The picture or the sound could not be put out.
constexpr TY_ERROR_TYPE TY_ERROR_OUTPUT_FAILED = static_cast<TY_ERROR_TYPE>(227);
/// The player's framework failed.
constexpr TY_ERROR_TYPE TY_ERROR_FRAMEWORK_FAILED = static_cast<TY_ERROR_TYPE>(228);
/// Another error of the player.
constexpr TY_ERROR_TYPE TY_ERROR_PLAYER_FAILED = static_cast<TY_ERROR_TYPE>(229);

/// Packs the size of a picture into one number. Threads: any.
/// @param width   of the picture in pixels, 0 to 32767
/// @param height  of the picture in pixels, 0 to 65535
/// @return the second parameter of TY_EVENT_RENDITION: width << 16 | height. Only the low 15 bits
///         of the width and the low 16 bits of the height are kept.
constexpr int TYFrameSize(int width, int height) {
    return static_cast<int>((static_cast<unsigned>(width) & 0x7fffU) << 16 |
                            (static_cast<unsigned>(height) & 0xffffU));
}

#endif  // TALLYRA_TYCONVENTIONS_H
