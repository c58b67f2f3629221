// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYEVENTCODES_H
#define TALLYRA_TYEVENTCODES_H

#include "tallyra/TYConventions.h"
#include "tallyra/TYTypes.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

/// Events that only the library makes, so TY_EVENT_TYPE does not declare them for players. A third
/// derived event, TY_EVENT_PLAYING_TIME, is declared there. The parentheses name both parameters.
enum TY_DERIVED_EVENT : std::uint8_t {
    /// Time from START to the first frame. (milliseconds, second parameter of its RENDER_START)
    TY_EVENT_START_UP_TIME = 21,
    /// Length of a stall. (milliseconds, second parameter of its BUFFERING_END)
    TY_EVENT_BUFFERING_TIME = 22
};

/// The network of a device, as records and CTYNetworkManager::m_NetworkType hold it.
enum TY_NETWORK_TYPE : signed char {
    TY_NETWORK_UNKNOWN = -1,
    TY_NETWORK_DISCONNECTED = 0,
    TY_NETWORK_ETHERNET = 1,
    TY_NETWORK_WIFI = 2,
};

/// Codes from kFirstErrorCode on are those of SendMediaError. A record keeps its code in one byte.
inline constexpr int kFirstErrorCode = 200;
inline constexpr int kLastCode = 255;

/// @return whether the library remarks with this code on the order of the player's calls, such as a
///         jump of the position after a seek. Playback goes on.
constexpr bool IsAboutCalls(int code) {
    return code >= TY_ERROR_URL_CHANGED && code <= TY_ERROR_DUPLICATED_RENDER_START;
}

/// @return whether a code is an error of a playback
constexpr bool IsError(int code) {
    return code >= kFirstErrorCode && !IsAboutCalls(code);
}

/// An event or error code and its name in commands and exports.
struct TYCodeName {
    int code;
    std::string_view name;
};

inline constexpr std::array kCodeNames = {
    TYCodeName{TY_EVENT_START, "START"},
    TYCodeName{TY_EVENT_STOP, "STOP"},
    TYCodeName{TY_EVENT_PAUSE, "PAUSE"},
    TYCodeName{TY_EVENT_BUFFERING_START, "BUFFERING_START"},
    TYCodeName{TY_EVENT_BUFFERING_END, "BUFFERING_END"},
    TYCodeName{TY_EVENT_RENDER_START, "RENDER_START"},
    TYCodeName{TY_EVENT_RESUME, "RESUME"},
    TYCodeName{TY_EVENT_PLAYBACK_TIME, "PLAYBACK_TIME"},
    TYCodeName{TY_EVENT_SEEK, "SEEK"},
    TYCodeName{TY_EVENT_SEEK_COMPLETE, "SEEK_COMPLETE"},
    TYCodeName{TY_EVENT_PLAYING_TIME, "PLAYING_TIME"},
    TYCodeName{TY_EVENT_START_UP_TIME, "START_UP_TIME"},
    TYCodeName{TY_EVENT_BUFFERING_TIME, "BUFFERING_TIME"},
    TYCodeName{TY_EVENT_RENDITION, "RENDITION"},
    TYCodeName{TY_EVENT_DROPPED_FRAMES, "DROPPED_FRAMES"},
    TYCodeName{TY_ERROR_URL_CHANGED, "URL_CHANGED"},
    TYCodeName{TY_ERROR_BUFFERING_MISMATCH, "BUFFERING_MISMATCH"},
    TYCodeName{TY_ERROR_DUPLICATED_START, "DUPLICATED_START"},
    TYCodeName{TY_ERROR_PLAYBACK_TIME_JUMP, "PLAYBACK_TIME_JUMP"},
    TYCodeName{TY_ERROR_DUPLICATED_RENDER_START, "DUPLICATED_RENDER_START"},
    TYCodeName{TY_ERROR_ACCESS_DENIED, "ACCESS_DENIED"},
    TYCodeName{TY_ERROR_NOT_FOUND, "NOT_FOUND"},
    TYCodeName{TY_ERROR_REQUEST_REFUSED, "REQUEST_REFUSED"},
    TYCodeName{TY_ERROR_SERVER_FAILED, "SERVER_FAILED"},
    TYCodeName{TY_ERROR_OPEN_FAILED, "OPEN_FAILED"},
    TYCodeName{TY_ERROR_READ_FAILED, "READ_FAILED"},
    TYCodeName{TY_ERROR_FORMAT_UNKNOWN, "FORMAT_UNKNOWN"},
    TYCodeName{TY_ERROR_CODEC_MISSING, "CODEC_MISSING"},
    TYCodeName{TY_ERROR_DECODE_FAILED, "DECODE_FAILED"},
    TYCodeName{TY_ERROR_DEMUX_FAILED, "DEMUX_FAILED"},
    TYCodeName{TY_ERROR_DECRYPT_FAILED, "DECRYPT_FAILED"},
    TYCodeName{TY_ERROR_STREAM_FAILED, "STREAM_FAILED"},
    TYCodeName{TY_ERROR_OUTPUT_FAILED, "OUTPUT_FAILED"},
    TYCodeName{TY_ERROR_FRAMEWORK_FAILED, "FRAMEWORK_FAILED"},
    TYCodeName{TY_ERROR_PLAYER_FAILED, "PLAYER_FAILED"},
};

/// @return the name of a code; empty if it has none
constexpr std::optional<std::string_view> NameOfCode(int code) {
    for (const TYCodeName& known : kCodeNames) {
        if (known.code == code) {
            return known.name;
        }
    }
    return std::nullopt;
}

/// @return the code of a name in capitals; empty if no code has the name
constexpr std::optional<int> CodeOfName(std::string_view name) {
    for (const TYCodeName& known : kCodeNames) {
        if (known.name == name) {
            return known.code;
        }
    }
    return std::nullopt;
}

#endif  // TALLYRA_TYEVENTCODES_H
