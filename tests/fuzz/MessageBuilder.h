// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_FUZZ_MESSAGEBUILDER_H
#define TALLYRA_TESTS_FUZZ_MESSAGEBUILDER_H

#include "Bytes.h"
#include "TYMessagePtr.h"

#include <dbus/dbus.h>

#include <cstdint>
#include <string>
#include <string_view>

/// Puts a message together argument by argument, as the bytes of a fuzzer say.
class CMessageBuilder {
  public:
    CMessageBuilder(const CMessageBuilder&) = delete;
    CMessageBuilder& operator=(const CMessageBuilder&) = delete;

    /// The message that the bytes make: the first of them says whether the others are one as the
    /// bus would deliver it, or instructions for a builder, which get deeper.
    /// @return null when they are none
    template <class Builder>
    static TYMessagePtr Make(CBytes& bytes) {
        return bytes.Byte() % 2 == 0 ? Builder(bytes).Build() : Demarshal(bytes.Rest());
    }

  protected:
    CMessageBuilder(CBytes& bytes, TYMessagePtr message);
    virtual ~CMessageBuilder() = default;

    /// Adds something.
    virtual void Step() = 0;
    /// Steps to the end of the bytes or of the message's room.
    TYMessagePtr Build();

    CBytes& Bytes() { return m_Bytes; }
    DBusMessage* Message() { return m_pMessage.get(); }
    DBusMessageIter* Iterator() { return &m_Iterator; }

    /// @return whether the signature has room for another value
    bool HasRoom() const;

    /// What stands before a payload: the running index and the payload's type.
    void AddHead(std::int32_t type);

    template <class Basic>
    void AddBasic(int type, Basic value) {
        dbus_message_iter_append_basic(&m_Iterator, type, &value);
    }

    void AddInt(std::int32_t value) { AddBasic(DBUS_TYPE_INT32, dbus_int32_t{value}); }
    void AddString(const std::string& text) { AddBasic(DBUS_TYPE_STRING, text.c_str()); }
    void AddBytes(std::string_view bytes);
    /// A whole value that is a text.
    void AddText(const std::string& text);

  private:
    static TYMessagePtr Demarshal(std::string_view bytes);

    CBytes& m_Bytes;
    TYMessagePtr m_pMessage;
    DBusMessageIter m_Iterator;
    std::int32_t m_nIndex = 0;
};

#endif  // TALLYRA_TESTS_FUZZ_MESSAGEBUILDER_H
