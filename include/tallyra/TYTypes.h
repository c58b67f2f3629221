// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYTYPES_H
#define TALLYRA_TYTYPES_H

#include <cstdint>

/// @file
/// The enumerations of the interface, and `TYEventInfo`.
///
/// The underlying type of each enumeration is `int`, so a player may also pass values that have no
/// name here. Records store one byte of each value: events, errors and the player as 0 to 255, DRM
/// and content types as -128 to 127.

/// Events that a player reports with ITYDataCollector::SendMediaEvent.
///
/// The parentheses after each description name the two parameters of SendMediaEvent. "ignored"
/// means that the record does not carry the parameter; "any" means that the record carries the
/// value that the player passes. Positions are milliseconds from the start of the content.
///
/// During a playback, a value without a name here is recorded with both parameters.
enum TY_EVENT_TYPE : int {
    /// Starts a playback, whose records all carry one new playback identifier. (ignored, any)
    TY_EVENT_START = 1,
    /// Ends the playback. (ignored, any; by convention a TY_STOP_REASON)
    TY_EVENT_STOP = 2,
    /// Pauses the playback. Position reports are ignored until TY_EVENT_RESUME. (any, ignored)
    TY_EVENT_PAUSE = 3,
    /// Buffering started. On Wi-Fi the record carries the signal strength in dBm instead of the
    /// second parameter, or -200 if the strength cannot be read. (ignored, any)
    TY_EVENT_BUFFERING_START = 4,
    /// Buffering ended. The library adds a record with the time since BUFFERING_START.
    /// (any, any; by convention a TY_STALL_CAUSE)
    TY_EVENT_BUFFERING_END = 5,
    /// The first frame is on the screen. Position reports are ignored before this event.
    /// (any, any)
    TY_EVENT_RENDER_START = 6,
    /// Continues the playback after TY_EVENT_PAUSE. (any, any)
    TY_EVENT_RESUME = 7,
    /// Reports the position; send this event about once a second. The library records the first
    /// report after START, after a PAUSE and its RESUME, and after SEEK_COMPLETE. It uses the other
    /// reports to measure play time. (position, any)
    TY_EVENT_PLAYBACK_TIME = 8,
    /// A seek started. The record also carries the last reported position.
    /// (target position, ignored)
    TY_EVENT_SEEK = 9,
    /// A seek ended. The next position report is recorded. (any, any)
    TY_EVENT_SEEK_COMPLETE = 10,
    /// Play time. Players do not send this event: the library records it each time the position
    /// has advanced by three minutes, and after each PAUSE and STOP.
    TY_EVENT_PLAYING_TIME = 20
};

/// Errors. The values named here are the library's own. A player may pass any value to
/// ITYDataCollector::SendMediaError, but should use values from 1 to 255 without a name here;
/// by convention those from TY_ERROR_FIRST_OF_PLAYER to TY_ERROR_LAST_OF_PLAYER.
enum TY_ERROR_TYPE : int {
    /// The content's URL changed during a playback. Not recorded: the change is logged and fails an
    /// assertion.
    TY_ERROR_URL_CHANGED = 201,
    /// The player reported BUFFERING_START twice, or BUFFERING_END without a BUFFERING_START.
    /// Recorded after the event.
    TY_ERROR_BUFFERING_MISMATCH = 202,
    /// The player reported START during a playback. Recorded in place of the START.
    TY_ERROR_DUPLICATED_START = 203,
    /// A reported position was lower than the reference position, or more than 189 seconds higher.
    /// Recorded. The reference position is the first position reported after START, or after a
    /// PAUSE and its RESUME. When a play time or a jump is recorded, the position just reported
    /// becomes the reference position. A seek does not change it, so a long or backward seek may
    /// record a jump.
    TY_ERROR_PLAYBACK_TIME_JUMP = 204,
    /// The player reported RENDER_START more than once in a playback. Only logged; the RENDER_START
    /// itself is recorded.
    TY_ERROR_DUPLICATED_RENDER_START = 205
};

/// How the content is protected. The library passes the value on and does not interpret it. The
/// platform integrator may assign the values up to 127 that have no name here.
enum TY_DRM_TYPE : int {
    TY_DRM_NOT_SET = -1,   ///< the player did not set a type
    TY_DRM_NONE = 0,       ///< not protected
    TY_DRM_PLAYREADY = 1,  ///< PlayReady
    TY_DRM_WIDEVINE = 2,   ///< Widevine
    TY_DRM_CLEARKEY = 3,   ///< Clear Key
    TY_DRM_OTHER = 100     ///< a protection that has no name here
};

/// What kind of content is played. The library passes the value on and does not interpret it. The
/// platform integrator may assign the values up to 127 that have no name here.
enum TY_CONTENT_TYPE : int {
    TY_CONTENT_NOT_SET = -1,       ///< the player did not set a type
    TY_CONTENT_VOD = 0,            ///< video on demand
    TY_CONTENT_LIVE = 1,           ///< a live channel
    TY_CONTENT_TIMESHIFT = 2,      ///< a live channel, played later than it is sent
    TY_CONTENT_TRAILER = 3,        ///< a trailer
    TY_CONTENT_ADVERTISEMENT = 4,  ///< an advertisement
    TY_CONTENT_AUDIO = 5,          ///< sound without a picture
    TY_CONTENT_OTHER = 100         ///< content of a kind that has no name here
};

/// Which player reports. Every record carries the value as one byte; the library does not interpret
/// it. The platform integrator may assign the values up to 255 that have no name here.
enum TY_PLAYER_ID : int {
    TY_PLAYER_UNKNOWN = 0,    ///< not known
    TY_PLAYER_NATIVE = 1,     ///< the player of a native application
    TY_PLAYER_WEB = 2,        ///< the player of a web application
    TY_PLAYER_ADAPTIVE = 3,   ///< a player of adaptive streams
    TY_PLAYER_BROADCAST = 4,  ///< the player of broadcast channels
    TY_PLAYER_AUDIO = 5,      ///< a player of sound
    TY_PLAYER_OTHER = 100     ///< a player that has no name here
};

/// One event or error, in the form in which a record carries it.
struct TYEventInfo {
    std::uint8_t event;   ///< a TY_EVENT_TYPE or TY_ERROR_TYPE value, 0 to 255
    std::int32_t param1;  ///< first parameter; its meaning depends on the event
    std::int32_t param2;  ///< second parameter; its meaning depends on the event
};

#endif  // TALLYRA_TYTYPES_H
