// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "EventNames.h"

#include "TYEventCodes.h"

#include <algorithm>
#include <cctype>
#include <charconv>

namespace {

std::string ToUpper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return text;
}

}  // namespace

std::string EventName(int code) {
    const auto name = NameOfCode(code);
    return name ? std::string(*name) : std::to_string(code);
}

std::optional<int> EventCode(const std::string& nameOrNumber) {
    int code = 0;
    const char* pEnd = nameOrNumber.data() + nameOrNumber.size();
    const auto [pStopped, error] = std::from_chars(nameOrNumber.data(), pEnd, code);
    if (error != std::errc() || pStopped != pEnd) {
        return CodeOfName(ToUpper(nameOrNumber));
    }
    if (code < 0 || code > kLastCode) {
        return std::nullopt;
    }
    return code;
}

std::string NetworkName(int type) {
    switch (type) {
        case TY_NETWORK_DISCONNECTED:
            return "none";
        case TY_NETWORK_ETHERNET:
            return "ethernet";
        case TY_NETWORK_WIFI:
            return "wifi";
        default:
            return "unknown";
    }
}

std::string PlayerName(int player) {
    switch (player) {
        case TY_PLAYER_UNKNOWN:
            return "unknown";
        case TY_PLAYER_NATIVE:
            return "native";
        case TY_PLAYER_WEB:
            return "web";
        case TY_PLAYER_ADAPTIVE:
            return "adaptive";
        case TY_PLAYER_BROADCAST:
            return "broadcast";
        case TY_PLAYER_AUDIO:
            return "audio";
        case TY_PLAYER_OTHER:
            return "other";
        default:
            return std::to_string(player);
    }
}

std::string ContentName(int type) {
    switch (type) {
        case TY_CONTENT_NOT_SET:
            return "not_set";
        case TY_CONTENT_VOD:
            return "vod";
        case TY_CONTENT_LIVE:
            return "live";
        case TY_CONTENT_TIMESHIFT:
            return "timeshift";
        case TY_CONTENT_TRAILER:
            return "trailer";
        case TY_CONTENT_ADVERTISEMENT:
            return "advertisement";
        case TY_CONTENT_AUDIO:
            return "audio";
        case TY_CONTENT_OTHER:
            return "other";
        default:
            return std::to_string(type);
    }
}

std::string DrmName(int type) {
    switch (type) {
        case TY_DRM_NOT_SET:
            return "not_set";
        case TY_DRM_NONE:
            return "none";
        case TY_DRM_PLAYREADY:
            return "playready";
        case TY_DRM_WIDEVINE:
            return "widevine";
        case TY_DRM_CLEARKEY:
            return "clearkey";
        case TY_DRM_OTHER:
            return "other";
        default:
            return std::to_string(type);
    }
}
