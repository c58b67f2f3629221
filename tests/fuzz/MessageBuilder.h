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

/// Builds a message argument by argument from a fuzzer's input.
class CMessageBuilder {
  public:
    CMessageBuilder(const CMessageBuilder&) = delete;
    CMessageBuilder& operator=(const CMessageBuilder&) = delete;

    /// Makes a message from the input. The first byte selects what the others are: a message in its
    /// wire form, or instructions for a Builder, which reaches deeper code more often.
    /// @return null when the wire form is malformed
    template <class Builder>
    static TYMessagePtr Make(CBytes& bytes) {
        return bytes.Byte() % 2 == 0 ? Builder(bytes).Build() : Demarshal(bytes.Rest());
    }

  protected:
    CMessageBuilder(CBytes& bytes, TYMessagePtr message);
    virtual ~CMessageBuilder() = default;

    /// Adds what the next bytes say.
    virtual void Step() = 0;
    /// Calls Step until the input ends or the message is full.
    TYMessagePtr Build();

    CBytes& Bytes() { return m_Bytes; }
    DBusMessage* Message() { return m_pMessage.get(); }
    DBusMessageIter* Iterator() { return &m_Iterator; }

    /// @return whether the signature has room for another value
    bool HasRoom() const;

    /// Appends what precedes a payload: the next index and the payload's type.
    void AddHead(std::int32_t type);

    template <class Basic>
    void AddBasic(int type, Basic value) {
        dbus_message_iter_append_basic(&m_Iterator, type, &value);
    }

    void AddInt(std::int32_t value) { AddBasic(DBUS_TYPE_INT32, dbus_int32_t{value}); }
    void AddString(const std::string& text) { AddBasic(DBUS_TYPE_STRING, text.c_str()); }
    void AddBytes(std::string_view bytes);
    /// Appends a whole triple with a string.
    void AddText(const std::string& text);

  private:
    static TYMessagePtr Demarshal(std::string_view bytes);

    CBytes& m_Bytes;
    TYMessagePtr m_pMessage;
    DBusMessageIter m_Iterator;
    std::int32_t m_nIndex = 0;
};

#endif  // TALLYRA_TESTS_FUZZ_MESSAGEBUILDER_H
