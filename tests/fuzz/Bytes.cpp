// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Bytes.h"

#include <dbus/dbus.h>

#include <algorithm>

std::uint8_t CBytes::Byte() {
    if (m_Rest.empty()) {
        return 0;
    }
    const auto byte = static_cast<std::uint8_t>(m_Rest.front());
    m_Rest.remove_prefix(1);
    return byte;
}

std::int32_t CBytes::Int() {
    std::uint32_t value = 0;
    for (int i = 0; i < 4; ++i) {
        value = value << 8 | Byte();
    }
    return static_cast<std::int32_t>(value);
}

std::string_view CBytes::Some() {
    const std::size_t high = Byte();
    const std::size_t low = Byte();
    const std::size_t count = std::min(high << 8 | low, m_Rest.size());
    const std::string_view some = m_Rest.substr(0, count);
    m_Rest.remove_prefix(count);
    return some;
}

std::string CBytes::Text() {
    std::string text(Some());
    text.resize(text.find('\0') == std::string::npos ? text.size() : text.find('\0'));
    return dbus_validate_utf8(text.c_str(), nullptr) != 0 ? text : "?";
}
