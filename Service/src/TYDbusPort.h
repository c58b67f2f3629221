// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYDBUSPORT_H
#define TALLYRA_TYDBUSPORT_H

#include <dbus/dbus.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

/// The kind of a CDbusValue; sent as an INT32.
enum DbusValueType : std::int32_t {
    DBUS_VALUE_INT = 0,     ///< nValue, an INT32
    DBUS_VALUE_STRING = 1,  ///< strValue, a STRING
    DBUS_VALUE_BINARY = 2,  ///< pBuffer and nBufferSize, an ARRAY of BYTE
    DBUS_VALUE_NONE = 3,    ///< no value; cannot be written
};

/// A value in a bus message. Copies share the buffer.
struct CDbusValue {
    DbusValueType type = DBUS_VALUE_NONE;
    std::int32_t nValue = 0;
    std::string strValue;
    std::shared_ptr<char[]> pBuffer;
    std::uint32_t nBufferSize = 0;

    static CDbusValue OfInt(std::int32_t value);
    static CDbusValue OfString(std::string text);
    /// Copies `size` bytes into a new buffer, which is not null even when `size` is 0.
    static CDbusValue OfBinary(const char* pBytes, std::uint32_t size);
};

/// Writes lists of values into bus messages and reads them back.
///
/// Each value is a triple of arguments: INT32 running index, INT32 type, payload. The reader
/// ignores the index.
///
/// Threads: any. The class uses no state, but a message must not be used by two threads at once.
class CDbusPort {
  public:
    /// Limit of a message body's signature, in characters. libdbus aborts if more is appended.
    static constexpr std::size_t kMaxSignature = 255;

    /// A view of bytes: address and count.
    using Bytes = std::pair<const char*, unsigned>;

    virtual ~CDbusPort() = default;
    CDbusPort(const CDbusPort&) = delete;
    CDbusPort& operator=(const CDbusPort&) = delete;

    /// @return whether the connection is open
    virtual bool IsReady() = 0;

    /// Appends an INT32.
    /// @return false on allocation failure; the message may only be freed then
    bool AddValueToIterator(DBusMessageIter* pIterator, int value);
    /// Appends the text up to its first NUL. Replaces bytes that are not UTF-8, because libdbus
    /// aborts on them.
    /// @return false on allocation failure; the message may only be freed then
    bool AddValueToIterator(DBusMessageIter* pIterator, const std::string& text);
    /// Appends an ARRAY of BYTE, empty if the address is null.
    /// @return false on allocation failure; the message may only be freed then
    bool AddValueToIterator(DBusMessageIter* pIterator, const Bytes& bytes);

    /// Appends values to the body; the first gets the index `index`.
    ///
    /// If the signature would exceed kMaxSignature, the whole list is refused: nothing is written,
    /// an error is logged, and the result is `index`. A value that is not an int, string or binary
    /// fails an assertion; with assertions compiled out it is skipped. On allocation failure an
    /// error is logged, and the message may only be freed.
    /// @return the index of the next value; on allocation failure that of the first value that was
    ///         not written
    int ListToMessage(DBusMessage* pMessage, int index, std::vector<CDbusValue>& values);

    /// Appends one value, as ListToMessage does.
    int ValueToMessage(DBusMessage* pMessage, int index, CDbusValue& value);

    /// Reads the current argument and advances to the next.
    ///  - int: an INT32, UINT32 or BOOLEAN, all of which have 32 bits. For any other argument
    ///    returns 0.
    ///  - std::string: a STRING. For any other argument logs an error, returns an empty text, and
    ///    does not advance.
    ///  - const Bytes: an ARRAY of BYTE, as a view valid as long as the message. For any other
    ///    argument logs an error, returns no bytes, and does not advance.
    template <class Type>
    Type PopMessage(DBusMessageIter* pIterator);

    /// Reads the body and appends its values to `values`. From a malformed body it reads what it
    /// can, and logs errors.
    /// @return 1; 0 when the message is null
    int MessageToList(DBusMessage* pMessage, std::vector<CDbusValue>& values);
    std::vector<CDbusValue> MessageToList(DBusMessage* pMessage);

  protected:
    CDbusPort() = default;

    DBusConnection* m_pConnection = nullptr;

  private:
    static bool FitsMessage(DBusMessage* pMessage, const std::vector<CDbusValue>& values);
    bool AddTriple(DBusMessageIter* pIterator, int index, const CDbusValue& value);
    bool PopTriple(DBusMessageIter* pIterator, std::vector<CDbusValue>& values);
    void PopPayload(DBusMessageIter* pIterator, int type, std::vector<CDbusValue>& values);
};

template <>
int CDbusPort::PopMessage<int>(DBusMessageIter* pIterator);
template <>
std::string CDbusPort::PopMessage<std::string>(DBusMessageIter* pIterator);
template <>
const CDbusPort::Bytes CDbusPort::PopMessage<const CDbusPort::Bytes>(DBusMessageIter* pIterator);

#endif  // TALLYRA_TYDBUSPORT_H
