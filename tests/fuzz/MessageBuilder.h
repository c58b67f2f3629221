// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_FUZZ_MESSAGEBUILDER_H
#define TALLYRA_TESTS_FUZZ_MESSAGEBUILDER_H

#include "Bytes.h"
#include "TYMessagePtr.h"

#include <dbus/dbus.h>

#include <cstdint>
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
                             bool bFunction);

  private:
    CMessageBuilder(CBytes& bytes, DBusMessage* pMessage);

    void AddFunction();
    void Add(Step step);
    void AddImage();
    void AddImages();
    void AddOther();
    void AddContainer();
    void Readdress();

    /// @return whether the signature has room for another value
    bool HasRoom() const;
    /// Appends what precedes a payload: the next index and the payload's type.
    CMessageBuilder& AddHead(std::int32_t type);

    template <class Basic>
    void AddBasic(int type, Basic value) {
        dbus_message_iter_append_basic(&m_Iterator, type, &value);
    }
    void AddInt(std::int32_t value) { AddBasic(DBUS_TYPE_INT32, dbus_int32_t{value}); }
    void AddString(const std::string& text) { AddBasic(DBUS_TYPE_STRING, text.c_str()); }
    void AddBytes(std::string_view bytes);

    CBytes& m_Bytes;
    DBusMessage* const m_pMessage;
    DBusMessageIter m_Iterator;
    std::int32_t m_nIndex = 0;
};

#endif  // TALLYRA_TESTS_FUZZ_MESSAGEBUILDER_H
