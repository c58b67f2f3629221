// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "MessageBuilder.h"

#include <cstring>
#include <utility>

namespace {

// libdbus aborts on a longer signature; no bus delivers one.
constexpr std::size_t kLongestSignature = 245;

}  // namespace

CMessageBuilder::CMessageBuilder(CBytes& bytes, TYMessagePtr message)
    : m_Bytes(bytes), m_pMessage(std::move(message)) {
    dbus_message_iter_init_append(m_pMessage.get(), &m_Iterator);
}

TYMessagePtr CMessageBuilder::Build() {
    while (!m_Bytes.AtEnd() && HasRoom()) {
        Step();
    }
    return std::move(m_pMessage);
}

bool CMessageBuilder::HasRoom() const {
    return std::strlen(dbus_message_get_signature(m_pMessage.get())) < kLongestSignature;
}

void CMessageBuilder::AddHead(std::int32_t type) {
    AddInt(m_nIndex++);
    AddInt(type);
}

void CMessageBuilder::AddBytes(std::string_view bytes) {
    const char* pBytes = bytes.empty() ? "" : bytes.data();
    DBusMessageIter array;
    dbus_message_iter_open_container(&m_Iterator, DBUS_TYPE_ARRAY, "y", &array);
    dbus_message_iter_append_fixed_array(&array, DBUS_TYPE_BYTE, &pBytes,
                                         static_cast<int>(bytes.size()));
    dbus_message_iter_close_container(&m_Iterator, &array);
}

void CMessageBuilder::AddText(const std::string& text) {
    AddHead(1);
    AddString(text);
}

TYMessagePtr CMessageBuilder::Demarshal(std::string_view bytes) {
    return TYMessagePtr(
        dbus_message_demarshal(bytes.data(), static_cast<int>(bytes.size()), nullptr));
}
