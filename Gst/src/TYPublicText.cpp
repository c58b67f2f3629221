// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYPublicText.h"

#include <algorithm>
#include <array>

namespace {

constexpr std::size_t kNone = std::string_view::npos;
constexpr std::string_view kDigits = "0123456789";
constexpr std::string_view kSpaces = " \t\r\n\v\f";
constexpr std::string_view kSchemeCharacters =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789+-.";

// URIs of these schemes have no user information, but perhaps an '@' in a path.
bool IsLocal(std::string_view scheme) {
    constexpr std::array<std::string_view, 3> kLocal = {"file", "data", "pipeline"};
    return std::ranges::any_of(kLocal, [&](auto each) { return scheme.ends_with(each); });
}

// An authority may be missing, as in file:///path, where it is empty.
std::size_t FindAuthority(std::string_view uri) {
    const std::size_t colon = uri.find(':');
    const std::size_t at = uri.find('@');
    const std::size_t separator = uri.find("://");
    if (separator < at) {
        const std::size_t start = separator + 3;
        const bool isLocal = IsLocal(uri.substr(0, separator));
        return isLocal ? start : std::min(uri.find_first_not_of('/', start), uri.size());
    }
    if (uri.starts_with("//")) {
        return std::min(uri.find_first_not_of('/'), uri.size());
    }
    return colon < at && !IsLocal(uri.substr(0, colon)) ? 0 : kNone;
}

// A port that is no number is part of a password.
bool IsHost(std::string_view text) {
    const std::size_t bracket = text.starts_with('[') ? text.find(']') : kNone;
    const std::size_t port = text.find(':', bracket == kNone ? 0 : bracket);
    return port == kNone || text.find_first_not_of(kDigits, port + 1) == kNone;
}

bool IsWordCharacter(char character) {
    return kSchemeCharacters.find(character) != kNone;
}

bool IsUriAt(std::string_view text, std::size_t at) {
    if (at > 0 && (IsWordCharacter(text[at - 1]) || text[at - 1] == '/')) {
        return false;
    }
    const std::size_t separator =
        std::min(text.find_first_not_of(kSchemeCharacters, at), text.size());
    return text.substr(separator).starts_with(separator == at ? "//" : "://");
}

// A quotation mark within a quoted URI is followed by more of it.
std::size_t FindClosing(std::string_view text, std::size_t at, char mark) {
    std::size_t end = text.find(mark, at);
    while (end != kNone && end + 1 < text.size() && IsWordCharacter(text[end + 1]) &&
           text[end + 1] != '.') {
        end = text.find(mark, end + 1);
    }
    return end;
}

std::size_t FindEndOfUri(std::string_view text, std::size_t at) {
    const char before = at > 0 ? text[at - 1] : ' ';
    const bool isQuoted = before == '"' || before == '\'' || before == '`';
    const std::size_t closing = isQuoted ? FindClosing(text, at, before) : kNone;
    return std::min(closing != kNone ? closing : text.find_first_of(kSpaces, at), text.size());
}

}  // namespace

std::string PublicUri(std::string_view uri) {
    const std::string_view shown = uri.substr(0, uri.find_first_of("?#"));
    const std::size_t authority = FindAuthority(uri);
    if (authority == kNone || authority > shown.size()) {
        return std::string(shown);
    }
    const std::string prefix(uri.substr(0, authority));
    const std::size_t path = std::min(shown.find('/', authority), shown.size());
    const std::size_t at = shown.substr(0, path).rfind('@');
    const std::size_t host = at != kNone && at >= authority ? at + 1 : authority;
    const bool isWrong = authority == 0 || !IsHost(shown.substr(host, path - host));
    if (!isWrong || uri.find('@', host) == kNone) {
        return prefix + std::string(shown.substr(host));
    }
    const std::size_t last = shown.rfind('@');
    return last != kNone && last >= authority ? prefix + std::string(shown.substr(last + 1))
                                              : prefix;
}

std::string PublicText(std::string_view text) {
    std::string shown;
    for (std::size_t at = 0; at < text.size() && shown.size() <= kLongestText;) {
        if (IsUriAt(text, at)) {
            const std::size_t end = FindEndOfUri(text, at);
            shown += PublicUri(text.substr(at, end - at));
            at = end;
        } else {
            shown.push_back(text[at]);
            ++at;
        }
    }
    return std::string(CutText(shown));
}

std::string_view CutText(std::string_view text) {
    const auto isWithin = [&](std::size_t at) {
        return (static_cast<unsigned char>(text[at]) & 0xC0U) == 0x80U;
    };
    if (text.size() <= kLongestText) {
        return text;
    }
    std::size_t end = kLongestText;
    while (end > kLongestText - 4 && isWithin(end)) {
        --end;
    }
    return text.substr(0, end);
}
