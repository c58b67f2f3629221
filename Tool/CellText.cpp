// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CellText.h"

#include <array>
#include <cstdio>

namespace {

std::string FormatBytes(std::int64_t bytes) {
    constexpr double kStep = 1024;
    constexpr std::array kUnits = {"KiB", "MiB", "GiB", "TiB"};
    if (static_cast<double>(bytes) < kStep) {
        return std::to_string(bytes) + " B";
    }
    std::size_t unit = 0;
    double size = static_cast<double>(bytes) / kStep;
    for (; size >= kStep && unit + 1 < kUnits.size(); ++unit) {
        size /= kStep;
    }
    std::array<char, 64> text;
    std::snprintf(text.data(), text.size(), "%.1f %s", size, kUnits.at(unit));
    return text.data();
}

std::string Joined(const std::vector<std::int64_t>& numbers) {
    std::string text;
    for (const std::int64_t number : numbers) {
        text += (text.empty() ? "" : " ") + std::to_string(number);
    }
    return text;
}

/// Turns each kind of cell into text.
struct Text {
    const RowStyle& style;

    std::string operator()(std::monostate /*empty*/) const { return ""; }
    std::string operator()(std::int64_t number) const { return std::to_string(number); }
    std::string operator()(const std::string& text) const { return text; }
    std::string operator()(TimeCell time) const { return FormatTime(time.nanoseconds, style.zone); }
    std::string operator()(LengthCell length) const {
        return style.format == Format::TABLE ? FormatLength(length.milliseconds)
                                             : std::to_string(length.milliseconds);
    }
    std::string operator()(BytesCell size) const {
        return style.format == Format::TABLE ? FormatBytes(size.bytes) : std::to_string(size.bytes);
    }
    std::string operator()(FlagCell flag) const {
        if (style.format == Format::TABLE) {
            return flag.isSo ? "yes" : "no";
        }
        return flag.isSo ? "true" : "false";
    }
    std::string operator()(const ListCell& list) const { return Joined(list.numbers); }
};

}  // namespace

std::string CellText(const Cell& cell, const RowStyle& style) {
    return std::visit(Text{style}, cell);
}
