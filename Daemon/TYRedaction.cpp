// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYRedaction.h"

#include <algorithm>
#include <cctype>
#include <cstring>

// Problem: URLs of media carry passwords, session tokens and identifiers of people. They arrive
// next to a record, and inside its texts: applications put URLs into the custom information, often
// as JSON. The store must not contain them, and the layout of a record must not change.
//
// Idea: find what may be secret by the syntax of URLs, not by a list of names.
//
//   https://user:pw@host/path?token=abc&x=1;y=2#part&access_token=abc
//   https://*@host/path?token=*&x=*;y=*#part&access_token=*
//
// - User information is what precedes the last '@' between slashes and the next '/'. Each "//" is
//   searched, because a path may contain another URL.
// - '&' and ';' divide the query. In each part, everything behind the first '=' is a value. A part
//   without '=' has no name, so all of it is a value.
// - The fragment is divided in the same way, but a part without '=' stays: it names a place.
//
// A text of a record may contain URLs anywhere. A URL there begins with a scheme and "://", and
// ends at the first byte that no URL contains: white space, a quotation mark, an angle bracket. An
// apostrophe may be part of a URL; it ends one only if another apostrophe precedes the scheme.
// JSON may write '/' as "\/" and '&' as "\u0026", so a backslash before '/' or 'u' does not end a
// URL.
//
// Always true:
// - The output is not longer than the input: each '*' replaces at least one byte.
// - Redacted text is stable: redacting it again changes nothing.
// - In a field, bytes in front of and behind a NUL do not mix: each piece between NULs is redacted
//   in its own place.

namespace {

constexpr char kRedacted = '*';
constexpr char kApostrophe = '\'';
constexpr std::string_view kSeparators = "&;";

// Divides the text at separators and appends each part, changed, with the separator behind it.
template <class Change>
void AppendParts(std::string& out, std::string_view text, Change change) {
    for (;;) {
        const std::size_t end = text.find_first_of(kSeparators);
        change(out, text.substr(0, end));
        if (end == text.npos) {
            return;
        }
        out += text[end];
        text.remove_prefix(end + 1);
    }
}

// Appends "name=*" for "name=value".
void AppendParameter(std::string& out, std::string_view part, std::size_t equals) {
    out += part.substr(0, equals + 1);
    if (equals + 1 < part.size()) {
        out += kRedacted;
    }
}

void AppendQueryPart(std::string& out, std::string_view part) {
    const std::size_t equals = part.find('=');
    if (equals != part.npos) {
        AppendParameter(out, part, equals);
    } else if (!part.empty()) {
        out += kRedacted;
    }
}

void AppendFragmentPart(std::string& out, std::string_view part) {
    const std::size_t equals = part.find('=');
    if (equals != part.npos) {
        AppendParameter(out, part, equals);
    } else {
        out += part;
    }
}

// "//", or "\/\/" in JSON.
std::size_t LengthOfSlashes(std::string_view text) {
    for (const std::string_view slashes : {std::string_view("//"), std::string_view("\\/\\/")}) {
        if (text.starts_with(slashes)) {
            return slashes.size();
        }
    }
    return 0;
}

std::size_t FindSlashes(std::string_view text) {
    for (std::size_t at = text.find('/'); at != text.npos; at = text.find('/', at + 1)) {
        if (at > 0 && LengthOfSlashes(text.substr(at - 1)) > 0) {
            return at - 1;
        }
        if (LengthOfSlashes(text.substr(at)) > 0) {
            return at;
        }
    }
    return text.npos;
}

// Appends what precedes query and fragment, without user information.
void AppendPath(std::string& out, std::string_view path) {
    for (std::size_t begin = FindSlashes(path); begin != path.npos; begin = FindSlashes(path)) {
        // Browsers take any number of slashes for two.
        const std::size_t end = std::min(
            path.find_first_not_of('/', begin + LengthOfSlashes(path.substr(begin))), path.size());
        out += path.substr(0, end);
        path.remove_prefix(end);
        const std::size_t at = path.substr(0, path.find('/')).rfind('@');
        if (at != path.npos && at > 0) {
            out += kRedacted;
            path.remove_prefix(at);
        }
    }
    out += path;
}

bool IsSchemeByte(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '+' || c == '-' || c == '.';
}

bool EndsUrl(std::string_view rest, bool isQuoted) {
    constexpr std::string_view kOutside = "\"<>`";
    const char c = rest.front();
    if (c == kApostrophe) {
        return isQuoted;
    }
    if (c == '\\') {
        return rest.size() < 2 || (rest[1] != '/' && rest[1] != 'u');
    }
    return static_cast<unsigned char>(c) <= ' ' || c == '\x7f' || kOutside.find(c) != rest.npos;
}

// Returns whether an apostrophe precedes the scheme that ends with the colon.
bool IsQuoted(std::string_view text, std::size_t colon) {
    std::size_t begin = colon;
    while (begin > 0 && IsSchemeByte(text[begin - 1])) {
        --begin;
    }
    return begin > 0 && text[begin - 1] == kApostrophe;
}

std::size_t LengthOfUrl(std::string_view text, bool isQuoted) {
    std::size_t length = 0;
    while (length < text.size() && !EndsUrl(text.substr(length), isQuoted)) {
        ++length;
    }
    return length;
}

// Finds the ':' of a scheme with "//" behind it.
std::size_t FindColonOfUrl(std::string_view text, std::size_t from) {
    for (std::size_t colon = text.find(':', from); colon != text.npos;
         colon = text.find(':', colon + 1)) {
        if (colon > 0 && IsSchemeByte(text[colon - 1]) &&
            LengthOfSlashes(text.substr(colon + 1)) > 0) {
            return colon;
        }
    }
    return text.npos;
}

// Redacts the URLs in a text without NULs. Fills it up with NULs.
void RedactInPlace(char* pText, std::size_t size) {
    const std::string_view text(pText, size);
    std::size_t colon = FindColonOfUrl(text, 0);
    if (colon == text.npos) {
        return;
    }
    std::string out;
    std::size_t done = 0;
    while (colon != text.npos) {
        const std::size_t length = LengthOfUrl(text.substr(colon), IsQuoted(text, colon));
        out += text.substr(done, colon - done);
        out += RedactedUrl(text.substr(colon, length));
        done = colon + length;
        colon = FindColonOfUrl(text, done);
    }
    out += text.substr(done);
    std::fill(std::copy(out.begin(), out.end(), pText), pText + size, '\0');
}

// Redacts each piece between NULs.
template <std::size_t Size>
void RedactField(char (&field)[Size]) {
    // Most fields are empty or contain no URL.
    if (std::memchr(field, ':', Size) == nullptr) {
        return;
    }
    for (char* pText = field; pText < field + Size;) {
        const std::size_t size = strnlen(pText, static_cast<std::size_t>(field + Size - pText));
        RedactInPlace(pText, size);
        pText += size + 1;
    }
}

}  // namespace

std::string RedactedUrl(std::string_view url) {
    const std::size_t hash = std::min(url.find('#'), url.size());
    const std::size_t mark = std::min(url.substr(0, hash).find('?'), hash);
    std::string out;
    out.reserve(url.size());
    AppendPath(out, url.substr(0, mark));
    if (mark < hash) {
        out += '?';
        AppendParts(out, url.substr(mark + 1, hash - mark - 1), AppendQueryPart);
    }
    if (hash < url.size()) {
        out += '#';
        AppendParts(out, url.substr(hash + 1), AppendFragmentPart);
    }
    return out;
}

void RedactTexts(TYMediaData& record) {
    RedactField(record.playbackID);
    RedactField(record.serviceVersion);
    RedactField(record.serviceID);
    RedactField(record.content.channelID);
    RedactField(record.content.title);
    RedactField(record.content.genre);
    RedactField(record.content.customInfo);
}
