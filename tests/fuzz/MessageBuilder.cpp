// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "MessageBuilder.h"

#include "TYBusNames.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace {

constexpr std::size_t kImageSize = 4800;
// libdbus aborts on a longer signature; no bus delivers one.
constexpr std::size_t kLongestSignature = 245;

}  // namespace

TYMessagePtr CMessageBuilder::Make(CBytes& bytes, TYMessagePtr message, std::span<const Step> steps,
                                   bool bFunction) {
    if (bytes.Byte() % 2 != 0) {
        const std::string_view wire = bytes.Rest();
        return TYMessagePtr(
            dbus_message_demarshal(wire.data(), static_cast<int>(wire.size()), nullptr));
    }
    CMessageBuilder builder(bytes, message.get());
    if (bFunction) {
        builder.AddFunction();
    }
    while (!bytes.AtEnd() && builder.HasRoom()) {
        builder.Add(steps[bytes.Byte() % steps.size()]);
    }
    return message;
}

CMessageBuilder::CMessageBuilder(CBytes& bytes, DBusMessage* pMessage)
    : m_Bytes(bytes), m_pMessage(pMessage) {
    dbus_message_iter_init_append(pMessage, &m_Iterator);
}

void CMessageBuilder::AddFunction() {
    constexpr std::array kFunctions = {"SendData", "GetPolicyInfo", "Kick", ""};
    const std::uint8_t choice = m_Bytes.Byte();
    AddHead(1).AddString(choice < kFunctions.size() ? kFunctions.at(choice) : m_Bytes.Text());
}

void CMessageBuilder::Add(Step step) {
    switch (step) {
        case Step::NUMBER:
            return AddHead(0).AddInt(m_Bytes.Int());
        case Step::SMALL_NUMBER:
            return AddHead(0).AddInt(m_Bytes.Byte());
        case Step::TEXT:
            return AddHead(1).AddString(m_Bytes.Text());
        case Step::BYTES:
            return AddHead(2).AddBytes(m_Bytes.Some());
        case Step::IMAGE:
            return AddImage();
        case Step::IMAGES:
            return AddImages();
        case Step::HEAD:
            return static_cast<void>(AddHead(m_Bytes.Int()));
        case Step::INT:
            return AddInt(m_Bytes.Int());
        case Step::STATUS:
            return AddInt(m_Bytes.Byte() % 4);
        case Step::STRING:
            return AddString(m_Bytes.Text());
        case Step::RAW_BYTES:
            return AddBytes(m_Bytes.Some());
        case Step::OTHER:
            return AddOther();
        case Step::CONTAINER:
            return AddContainer();
        case Step::NO_REPLY:
            return dbus_message_set_no_reply(m_pMessage, m_Bytes.Byte() & 1);
        case Step::READDRESS:
            return Readdress();
    }
}

// Adds an image of the right size with some of its bytes set.
void CMessageBuilder::AddImage() {
    std::string image(kImageSize, static_cast<char>(m_Bytes.Byte()));
    const auto offset = static_cast<std::size_t>(m_Bytes.Int()) % kImageSize;
    const std::string_view bytes = m_Bytes.Some();
    const std::size_t count = std::min(bytes.size(), kImageSize - offset);
    image.replace(offset, count, bytes.substr(0, count));
    AddHead(2).AddBytes(image);
}

void CMessageBuilder::AddImages() {
    std::string image(kImageSize, '\0');
    const int count = m_Bytes.Byte() % 32;
    for (int i = 0; i < count && HasRoom(); ++i) {
        image[static_cast<std::size_t>(m_Bytes.Int()) % kImageSize] =
            static_cast<char>(m_Bytes.Byte());
        AddHead(2).AddBytes(image);
    }
}

void CMessageBuilder::AddOther() {
    switch (m_Bytes.Byte() % 10) {
        case 0:
            return AddBasic(DBUS_TYPE_INT64, dbus_int64_t{m_Bytes.Int()});
        case 1:
            return AddBasic(DBUS_TYPE_UINT64, dbus_uint64_t{m_Bytes.Byte()});
        case 2:
            return AddBasic(DBUS_TYPE_UINT32, dbus_uint32_t{m_Bytes.Byte()});
        case 3:
            return AddBasic(DBUS_TYPE_BYTE, m_Bytes.Byte());
        case 4:
            return AddBasic(DBUS_TYPE_BOOLEAN, dbus_bool_t{m_Bytes.Byte() % 2U});
        case 5:
            return AddBasic(DBUS_TYPE_DOUBLE, static_cast<double>(m_Bytes.Int()));
        case 6:
            return AddBasic(DBUS_TYPE_INT16, static_cast<dbus_int16_t>(m_Bytes.Int()));
        case 7:
            return AddBasic(DBUS_TYPE_OBJECT_PATH, "/org/example");
        case 8:
            return AddBasic(DBUS_TYPE_SIGNATURE, "a(iiay)");
        default:
            return AddBasic(DBUS_TYPE_UNIX_FD, STDERR_FILENO);
    }
}

void CMessageBuilder::AddContainer() {
    const std::uint8_t choice = m_Bytes.Byte();
    const dbus_int32_t number = m_Bytes.Int();
    const int kind = choice % 3 == 0   ? DBUS_TYPE_ARRAY
                     : choice % 3 == 1 ? DBUS_TYPE_VARIANT
                                       : DBUS_TYPE_STRUCT;
    const char* pContents = kind == DBUS_TYPE_STRUCT ? nullptr : "i";
    DBusMessageIter inner;
    dbus_message_iter_open_container(&m_Iterator, kind, pContents, &inner);
    // Only an array may be empty.
    if (kind != DBUS_TYPE_ARRAY || choice % 2 == 0) {
        dbus_message_iter_append_basic(&inner, DBUS_TYPE_INT32, &number);
    }
    dbus_message_iter_close_container(&m_Iterator, &inner);
}

void CMessageBuilder::Readdress() {
    const std::uint8_t what = m_Bytes.Byte();
    dbus_message_set_path(m_pMessage, (what & 1) != 0 ? nullptr : TYBusNames::kPath);
    dbus_message_set_interface(m_pMessage, (what & 2) != 0 ? "org.example.Other" : nullptr);
    dbus_message_set_member(m_pMessage, (what & 4) != 0 ? "Other" : TYBusNames::kMethod);
    dbus_message_set_sender(m_pMessage, (what & 8) != 0 ? ":1.2" : nullptr);
}

bool CMessageBuilder::HasRoom() const {
    return std::strlen(dbus_message_get_signature(m_pMessage)) < kLongestSignature;
}

CMessageBuilder& CMessageBuilder::AddHead(std::int32_t type) {
    AddInt(m_nIndex++);
    AddInt(type);
    return *this;
}

void CMessageBuilder::AddBytes(std::string_view bytes) {
    const char* pBytes = bytes.empty() ? "" : bytes.data();
    DBusMessageIter array;
    dbus_message_iter_open_container(&m_Iterator, DBUS_TYPE_ARRAY, "y", &array);
    dbus_message_iter_append_fixed_array(&array, DBUS_TYPE_BYTE, &pBytes,
                                         static_cast<int>(bytes.size()));
    dbus_message_iter_close_container(&m_Iterator, &array);
}
