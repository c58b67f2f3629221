// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_FUZZ_MESSAGEBUILDER_H
#define TALLYRA_TESTS_FUZZ_MESSAGEBUILDER_H

#include "Bytes.h"
#include "TYBusNames.h"
#include "TYMessagePtr.h"

#include <dbus/dbus.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <string_view>

/// Builds a message argument by argument from a fuzzer's input.
class CMessageBuilder {
  public:
    /// What one byte of the input adds to the message; the values come from the next bytes.
    enum class Step {
        NUMBER,        ///< a whole triple, as TEXT, BYTES and IMAGE are
        SMALL_NUMBER,  ///< of a byte
        TEXT,
        BYTES,
        IMAGE,      ///< bytes of the size of a record
        IMAGES,     ///< that differ in few bytes
        HEAD,       ///< index and type of a triple without its payload
        INT,        ///< a payload without its head, as STATUS, STRING and RAW_BYTES are
        STATUS,     ///< 0 to 3
        STRING,     ///< a string
        RAW_BYTES,  ///< an array of bytes
        OTHER,      ///< a value of a type that no triple holds
        CONTAINER,  ///< an array, a variant or a struct of numbers
        NO_REPLY,   ///< sets the flag of a call
        READDRESS,  ///< changes the addresses of a call
    };

    /// Makes a message from the input. The first byte selects what the others are: a message in its
    /// wire form, or indices of `steps`, which reach deeper code more often.
    /// @param message    is the empty message to add to
    /// @param bFunction  whether the input names a function first
    /// @return null when the wire form is malformed
    static TYMessagePtr Make(CBytes& bytes, TYMessagePtr message, std::span<const Step> steps,
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

  private:
    static constexpr std::size_t kImageSize = 4800;

    CMessageBuilder(CBytes& bytes, DBusMessage* pMessage) : m_Bytes(bytes), m_pMessage(pMessage) {
        dbus_message_iter_init_append(pMessage, &m_Iterator);
    }

    void AddFunction() {
        constexpr const char* kFunctions[] = {"SendData", "GetPolicyInfo", "Kick", ""};
        const std::uint8_t choice = m_Bytes.Byte();
        AddHead(1).AddString(choice < std::size(kFunctions) ? kFunctions[choice] : m_Bytes.Text());
    }

    void Add(Step step) {
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

    /// Adds an image of the right size with some of its bytes set.
    void AddImage() {
        std::string image(kImageSize, static_cast<char>(m_Bytes.Byte()));
        const auto offset = static_cast<std::size_t>(m_Bytes.Int()) % kImageSize;
        const std::string_view bytes = m_Bytes.Some();
        const std::size_t count = std::min(bytes.size(), kImageSize - offset);
        image.replace(offset, count, bytes.substr(0, count));
        AddHead(2).AddBytes(image);
    }

    void AddImages() {
        std::string image(kImageSize, '\0');
        const int count = m_Bytes.Byte() % 32;
        for (int i = 0; i < count && HasRoom(); ++i) {
            image[static_cast<std::size_t>(m_Bytes.Int()) % kImageSize] =
                static_cast<char>(m_Bytes.Byte());
            AddHead(2).AddBytes(image);
        }
    }

    void AddOther() {
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

    void AddContainer() {
        constexpr int kKinds[] = {DBUS_TYPE_ARRAY, DBUS_TYPE_VARIANT, DBUS_TYPE_STRUCT};
        const std::uint8_t choice = m_Bytes.Byte();
        const dbus_int32_t number = m_Bytes.Int();
        const int kind = kKinds[choice % 3];
        DBusMessageIter inner;
        dbus_message_iter_open_container(&m_Iterator, kind,
                                         kind == DBUS_TYPE_STRUCT ? nullptr : "i", &inner);
        // Only an array may be empty.
        if (kind != DBUS_TYPE_ARRAY || choice % 2 == 0) {
            dbus_message_iter_append_basic(&inner, DBUS_TYPE_INT32, &number);
        }
        dbus_message_iter_close_container(&m_Iterator, &inner);
    }

    void Readdress() {
        const std::uint8_t what = m_Bytes.Byte();
        dbus_message_set_path(m_pMessage, (what & 1) != 0 ? nullptr : TYBusNames::kPath);
        dbus_message_set_interface(m_pMessage, (what & 2) != 0 ? "org.example.Other" : nullptr);
        dbus_message_set_member(m_pMessage, (what & 4) != 0 ? "Other" : TYBusNames::kMethod);
        dbus_message_set_sender(m_pMessage, (what & 8) != 0 ? ":1.2" : nullptr);
    }

    /// @return whether the signature has room for another value: libdbus aborts on a longer one,
    ///         and no bus delivers it
    bool HasRoom() const { return std::strlen(dbus_message_get_signature(m_pMessage)) < 245; }

    /// Appends what precedes a payload: the next index and the payload's type.
    CMessageBuilder& AddHead(std::int32_t type) {
        AddInt(m_nIndex++);
        AddInt(type);
        return *this;
    }

    template <class Basic>
    void AddBasic(int type, Basic value) {
        dbus_message_iter_append_basic(&m_Iterator, type, &value);
    }
    void AddInt(std::int32_t value) { AddBasic(DBUS_TYPE_INT32, dbus_int32_t{value}); }
    void AddString(const std::string& text) { AddBasic(DBUS_TYPE_STRING, text.c_str()); }
    void AddBytes(std::string_view bytes) {
        const char* pBytes = bytes.empty() ? "" : bytes.data();
        DBusMessageIter array;
        dbus_message_iter_open_container(&m_Iterator, DBUS_TYPE_ARRAY, "y", &array);
        dbus_message_iter_append_fixed_array(&array, DBUS_TYPE_BYTE, &pBytes,
                                             static_cast<int>(bytes.size()));
        dbus_message_iter_close_container(&m_Iterator, &array);
    }

    CBytes& m_Bytes;
    DBusMessage* const m_pMessage;
    DBusMessageIter m_Iterator;
    std::int32_t m_nIndex = 0;
};

#endif  // TALLYRA_TESTS_FUZZ_MESSAGEBUILDER_H
