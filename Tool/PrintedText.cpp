// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PrintedText.h"

#include "TYRecordImage.h"

#include <glib.h>

namespace {

// Letters with several accents need some; a player could send a million for one column.
constexpr std::size_t kMostBytesAColumn = 16;

// Zero-width joiners are part of words in some scripts. Other format characters can reorder a line.
bool IsHarmless(gunichar character) {
    switch (g_unichar_type(character)) {
        case G_UNICODE_CONTROL:
        case G_UNICODE_LINE_SEPARATOR:
        case G_UNICODE_PARAGRAPH_SEPARATOR:
            return false;
        case G_UNICODE_FORMAT:
            return character == 0x200c || character == 0x200d;
        default:
            return true;
    }
}

std::size_t WidthOf(gunichar character) {
    if (g_unichar_iszerowidth(character) != FALSE) {
        return 0;
    }
    return g_unichar_iswide(character) != FALSE ? 2 : 1;
}

}  // namespace

bool IsHarmless(const std::string& text) {
    for (const char* pAt = text.c_str(); *pAt != '\0'; pAt = g_utf8_next_char(pAt)) {
        if (!IsHarmless(g_utf8_get_char(pAt))) {
            return false;
        }
    }
    return true;
}

std::size_t WidthOf(const std::string& text) {
    std::size_t width = 0;
    for (const char* pAt = text.c_str(); *pAt != '\0'; pAt = g_utf8_next_char(pAt)) {
        width += WidthOf(g_utf8_get_char(pAt));
    }
    return width;
}

std::string Printable(std::string_view text) {
    const std::string valid = ValidText(text);
    std::string printable;
    for (const char* pAt = valid.c_str(); *pAt != '\0'; pAt = g_utf8_next_char(pAt)) {
        const auto length = static_cast<std::size_t>(g_utf8_next_char(pAt) - pAt);
        printable += IsHarmless(g_utf8_get_char(pAt)) ? std::string(pAt, length) : "?";
    }
    return printable;
}

std::string Shortened(const std::string& text, std::size_t width) {
    const std::size_t most = width * kMostBytesAColumn;
    if (text.size() <= most && WidthOf(text) <= width) {
        return text;
    }
    std::size_t columns = 0;
    std::size_t bytes = 0;
    for (const char* pAt = text.c_str(); *pAt != '\0' && bytes < most;) {
        columns += WidthOf(g_utf8_get_char(pAt));
        if (columns >= width) {
            break;
        }
        pAt = g_utf8_next_char(pAt);
        bytes = static_cast<std::size_t>(pAt - text.c_str());
    }
    return text.substr(0, bytes) + "…";
}
