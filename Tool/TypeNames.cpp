// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TypeNames.h"

#include "TYEventCodes.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdint>

namespace {

struct TypeName {
    int number;
    const char* pName;
};

constexpr TypeName kNetworks[] = {{TY_NETWORK_UNKNOWN, "unknown"},
                                  {TY_NETWORK_DISCONNECTED, "none"},
                                  {TY_NETWORK_ETHERNET, "ethernet"},
                                  {TY_NETWORK_WIFI, "wifi"}};

constexpr TypeName kPlayers[] = {{TY_PLAYER_UNKNOWN, "unknown"},
                                 {TY_PLAYER_NATIVE, "native"},
                                 {TY_PLAYER_WEB, "web"},
                                 {TY_PLAYER_ADAPTIVE, "adaptive"},
                                 {TY_PLAYER_BROADCAST, "broadcast"},
                                 {TY_PLAYER_AUDIO, "audio"},
                                 {TY_PLAYER_OTHER, "other"}};

constexpr TypeName kDrms[] = {{TY_DRM_NOT_SET, "not_set"},     {TY_DRM_NONE, "none"},
                              {TY_DRM_PLAYREADY, "playready"}, {TY_DRM_WIDEVINE, "widevine"},
                              {TY_DRM_CLEARKEY, "clearkey"},   {TY_DRM_OTHER, "other"}};

constexpr TypeName kContents[] = {
    {TY_CONTENT_NOT_SET, "not_set"}, {TY_CONTENT_VOD, "vod"},
    {TY_CONTENT_LIVE, "live"},       {TY_CONTENT_TIMESHIFT, "timeshift"},
    {TY_CONTENT_TRAILER, "trailer"}, {TY_CONTENT_ADVERTISEMENT, "advertisement"},
    {TY_CONTENT_AUDIO, "audio"},     {TY_CONTENT_OTHER, "other"}};

template <std::size_t Size>
std::string NameIn(const TypeName (&names)[Size], int number) {
    for (const TypeName& known : names) {
        if (known.number == number) {
            return known.pName;
        }
    }
    return std::to_string(number);
}

}  // namespace

std::string NetworkName(int type) {
    return NameIn(kNetworks, type);
}

std::optional<int> NetworkType(const std::string& nameOrNumber) {
    std::string name = nameOrNumber;
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    for (const TypeName& known : kNetworks) {
        if (known.pName == name) {
            return known.number;
        }
    }
    int number = 0;
    const char* pEnd = name.data() + name.size();
    const auto [pStopped, error] = std::from_chars(name.data(), pEnd, number);
    if (error != std::errc() || pStopped != pEnd || number < TY_NETWORK_UNKNOWN ||
        number > INT8_MAX) {
        return std::nullopt;
    }
    return number;
}

std::string PlayerName(int player) {
    return NameIn(kPlayers, player);
}

std::string DrmName(int type) {
    return NameIn(kDrms, type);
}

std::string ContentName(int type) {
    return NameIn(kContents, type);
}
