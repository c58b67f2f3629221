// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Record.h"

#include <algorithm>
#include <array>
#include <sstream>

namespace model {

namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

/// A run of bytes in an image.
struct Place {
    std::size_t offset;
    std::size_t size;
};

constexpr Place kPlaybackID{2, 25};
constexpr Place kServiceVersion{27, 12};
constexpr Place kServiceID{39, 50};
constexpr Place kChannelID{114, 256};
constexpr Place kTitle{370, 256};
constexpr Place kGenre{626, 68};
constexpr Place kCustomInfo{694, 4096};
constexpr std::array kTexts{kPlaybackID, kServiceVersion, kServiceID, kChannelID,
                            kTitle,      kGenre,          kCustomInfo};
// Padding, and the slot of the URL pointer.
constexpr std::array kUnused{Place{89, 3}, Place{93, 3}, Place{108, 4}, Place{4790, 2}};

std::uint8_t Byte(std::string_view image, std::size_t offset) {
    return static_cast<std::uint8_t>(image[offset]);
}

int Signed(std::uint8_t byte) {
    return byte < 128 ? byte : byte - 256;
}

std::int32_t Int(std::string_view image, std::size_t offset) {
    std::uint32_t value = 0;
    for (std::size_t i = 4; i-- > 0;) {
        value = value << 8 | Byte(image, offset + i);
    }
    return static_cast<std::int32_t>(value);
}

std::string Text(std::string_view image, Place place) {
    const std::string_view field = image.substr(place.offset, place.size);
    return std::string(field.substr(0, field.find('\0')));
}

bool IsZero(std::string_view bytes) {
    return std::all_of(bytes.begin(), bytes.end(), [](char byte) { return byte == '\0'; });
}

std::string Problem(std::string_view image) {
    for (const Place place : kUnused) {
        if (!IsZero(image.substr(place.offset, place.size))) {
            return "bytes between the fields are not zero";
        }
    }
    for (const Place place : kTexts) {
        const std::string_view field = image.substr(place.offset, place.size);
        const std::size_t end = field.find('\0');
        if (end == std::string_view::npos) {
            return "a text has no NUL";
        }
        if (!IsZero(field.substr(end))) {
            return "bytes after the end of a text are not zero";
        }
    }
    return {};
}

template <class Value>
void Compare(std::ostringstream& out, const char* pName, const Value& expected,
             const Value& found) {
    if (expected != found) {
        out << pName << ": expected \"" << expected << "\", found \"" << found << "\"\n";
    }
}

bool IsIn(std::string_view text, std::size_t at, std::uint8_t first, std::uint8_t last) {
    return at < text.size() && Byte(text, at) >= first && Byte(text, at) <= last;
}

// The length of the UTF-8 character at an index, 0 for an invalid one: overlong forms, surrogates
// and code points above U+10FFFF are invalid.
std::size_t CharacterLength(std::string_view text, std::size_t at) {
    const std::uint8_t lead = Byte(text, at);
    if (lead < 0x80) {
        return 1;
    }
    if (lead >= 0xC2 && lead <= 0xDF) {
        return IsIn(text, at + 1, 0x80, 0xBF) ? 2 : 0;
    }
    if (lead >= 0xE0 && lead <= 0xEF) {
        const bool second =
            IsIn(text, at + 1, lead == 0xE0 ? 0xA0 : 0x80, lead == 0xED ? 0x9F : 0xBF);
        return second && IsIn(text, at + 2, 0x80, 0xBF) ? 3 : 0;
    }
    if (lead >= 0xF0 && lead <= 0xF4) {
        const bool second =
            IsIn(text, at + 1, lead == 0xF0 ? 0x90 : 0x80, lead == 0xF4 ? 0x8F : 0xBF);
        return second && IsIn(text, at + 2, 0x80, 0xBF) && IsIn(text, at + 3, 0x80, 0xBF) ? 4 : 0;
    }
    return 0;
}

/// Finds the text after the first occurrence of a separator.
bool After(std::string_view text, std::string_view separator, std::string_view* pAfter) {
    const std::size_t at = text.find(separator);
    if (at == std::string_view::npos) {
        return false;
    }
    *pAfter = text.substr(at + separator.size());
    return true;
}

std::string WithoutQuery(std::string_view text) {
    return std::string(text.substr(0, text.find('?')));
}

std::string PathOf(std::string_view url) {
    std::string_view server;
    std::string_view path;
    if (!After(url, "://", &server)) {
        return WithoutQuery(url);
    }
    return After(server, "/", &path) ? WithoutQuery(path) : "://" + WithoutQuery(server);
}

}  // namespace

Record FromImage(std::string_view image, std::string url, std::string* pProblem) {
    Record record;
    if (image.size() != kImageSize) {
        *pProblem = "an image has the wrong size";
        return record;
    }
    *pProblem = Problem(image);
    record.playerID = Signed(Byte(image, 0));
    record.networkType = Byte(image, 1);
    record.playbackID = Text(image, kPlaybackID);
    record.serviceVersion = Text(image, kServiceVersion);
    record.serviceID = Text(image, kServiceID);
    record.event = Byte(image, 92);
    record.param1 = Int(image, 96);
    record.param2 = Int(image, 100);
    record.duration = Int(image, 104);
    record.drmType = Byte(image, 112);
    record.contentType = Byte(image, 113);
    record.channelID = Text(image, kChannelID);
    record.title = Text(image, kTitle);
    record.genre = Text(image, kGenre);
    record.customInfo = Text(image, kCustomInfo);
    record.url = std::move(url);
    record.time = {Int(image, 4792), Int(image, 4796)};
    return record;
}

std::string Differences(const Record& expected, const Record& found) {
    std::ostringstream out;
    Compare(out, "playerID", expected.playerID, found.playerID);
    Compare(out, "networkType", expected.networkType, found.networkType);
    Compare(out, "playbackID", expected.playbackID, found.playbackID);
    Compare(out, "serviceVersion", expected.serviceVersion, found.serviceVersion);
    Compare(out, "serviceID", expected.serviceID, found.serviceID);
    Compare(out, "event", expected.event, found.event);
    Compare(out, "param1", expected.param1, found.param1);
    Compare(out, "param2", expected.param2, found.param2);
    Compare(out, "duration", expected.duration, found.duration);
    Compare(out, "drmType", expected.drmType, found.drmType);
    Compare(out, "contentType", expected.contentType, found.contentType);
    Compare(out, "channelID", expected.channelID, found.channelID);
    Compare(out, "title", expected.title, found.title);
    Compare(out, "genre", expected.genre, found.genre);
    Compare(out, "customInfo", expected.customInfo, found.customInfo);
    Compare(out, "url", expected.url, found.url);
    Compare(out, "time.sec", expected.time.sec, found.time.sec);
    Compare(out, "time.nsec", expected.time.nsec, found.time.nsec);
    return out.str();
}

std::string Cut(std::string_view text, std::size_t width) {
    return std::string(text.substr(0, std::min(text.find('\0'), width - 1)));
}

std::string Valid(std::string_view text) {
    text = text.substr(0, text.find('\0'));
    std::string valid;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t length = CharacterLength(text, at);
        valid += length == 0 ? kReplacement : text.substr(at, length);
        at += std::max<std::size_t>(length, 1);
    }
    return valid;
}

std::string KeptUrl(std::string_view url, bool pathOnly) {
    url = url.substr(0, url.find('\0'));
    return pathOnly ? PathOf(url) : std::string(url);
}

}  // namespace model
