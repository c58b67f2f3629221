// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_FUZZ_BYTES_H
#define TALLYRA_TESTS_FUZZ_BYTES_H

#include <dbus/dbus.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// Reads values from a fuzzer's input. After the end of the input every value is zero or empty.
class CBytes {
  public:
    CBytes(const std::uint8_t* pData, std::size_t size)
        : m_Rest(reinterpret_cast<const char*>(pData), size) {}

    bool AtEnd() const { return m_Rest.empty(); }

    std::uint8_t Byte() {
        if (m_Rest.empty()) {
            return 0;
        }
        const auto byte = static_cast<std::uint8_t>(m_Rest.front());
        m_Rest.remove_prefix(1);
        return byte;
    }

    /// Reads 4 bytes, most significant first.
    std::int32_t Int() {
        std::uint32_t value = 0;
        for (int i = 0; i < 4; ++i) {
            value = value << 8 | Byte();
        }
        return static_cast<std::int32_t>(value);
    }

    /// Reads a length of 2 bytes, then at most that many bytes.
    std::string_view Some() {
        const std::size_t high = Byte();
        const std::size_t low = Byte();
        const std::string_view some = m_Rest.substr(0, high << 8 | low);
        m_Rest.remove_prefix(some.size());
        return some;
    }

    /// As Some(), up to the first NUL; "?" instead of text that D-Bus does not accept.
    std::string Text() {
        std::string text(Some());
        text.resize(std::min(text.find('\0'), text.size()));
        return dbus_validate_utf8(text.c_str(), nullptr) != 0 ? text : "?";
    }

    /// @return the unread bytes
    std::string_view Rest() const { return m_Rest; }

  private:
    std::string_view m_Rest;
};

#endif  // TALLYRA_TESTS_FUZZ_BYTES_H
