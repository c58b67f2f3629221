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

/// The kind of a CDbusValue; travels as an INT32.
enum DbusValueType : std::int32_t {
    DBUS_VALUE_INT = 0,     ///< nValue, an INT32
    DBUS_VALUE_STRING = 1,  ///< strValue, a STRING
    DBUS_VALUE_BINARY = 2,  ///< pBuffer and nBufferSize, an ARRAY of BYTE
    DBUS_VALUE_NONE = 3,    ///< nothing; cannot be written
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
    /// Copies `size` bytes into a buffer of its own, which is there also when `size` is 0.
    static CDbusValue OfBinary(const char* pBytes, std::uint32_t size);
};

/// Writes lists of values into bus messages and reads them back.
///
/// Each value is a triple of arguments: INT32 running index, INT32 type, payload. The reader never
/// looks at the index.
///
/// Threads: no state but the connection handle, which this class does not use; a message must not
/// be used by two threads at once.
class CDbusPort {
  public:
    /// Longest signature of a message body, in characters. libdbus aborts when more is appended.
    static constexpr std::size_t kMaxSignature = 255;

    /// A view of bytes: where they are and how many.
    using Bytes = std::pair<const char*, unsigned>;

    virtual ~CDbusPort() = default;
    CDbusPort(const CDbusPort&) = delete;
    CDbusPort& operator=(const CDbusPort&) = delete;

    /// @return whether calls can be made
    virtual bool IsReady() = 0;

    /// @return whether there was memory for it; when not, the message is of no use any more and may
    ///         only be freed. So with the two below.
    bool AddValueToIterator(DBusMessageIter* pIterator, int value);
    /// Writes the text up to its first NUL. Bytes that are not UTF-8 are replaced, since libdbus
    /// ends the process of who appends them.
    bool AddValueToIterator(DBusMessageIter* pIterator, const std::string& text);
    bool AddValueToIterator(DBusMessageIter* pIterator, const Bytes& bytes);

    /// Appends the values to the body, the first one with the index `index`.
    ///
    /// A list whose signature no message can hold is refused as a whole: an error line, nothing is
    /// written, and the result is `index`. A value of another type than int, string or binary fails
    /// an assertion; without assertions it is left out. Allocation failure is an error line; the
    /// message may only be freed then.
    /// @return the index that the next value would get: that of the first one that was not written,
    ///         when memory lacked
    int ListToMessage(DBusMessage* pMessage, int index, std::vector<CDbusValue>& values);

    /// ListToMessage of one value.
    int ValueToMessage(DBusMessage* pMessage, int index, CDbusValue& value);

    /// Reads the current argument and moves on.
    ///  - int: an INT32, UINT32 or BOOLEAN, all of which have 32 bits. Any other argument counts as
    ///    0.
    ///  - std::string: a STRING. Any other argument gives an error line and an empty text, and
    ///    stays the current one.
    ///  - const Bytes: an ARRAY of BYTE, as a view that lives as long as the message. Any other
    ///    argument gives an error line and no bytes, and stays the current one.
    template <class Type>
    Type PopMessage(DBusMessageIter* pIterator);

    /// Appends the values in the body to `values`. A body that does not follow the layout gives the
    /// values that can be made out of it, and error lines.
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
