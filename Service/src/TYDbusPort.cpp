// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYDbusPort.h"

#include "TYLog.h"

#include <glib.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#define TY_LOG_TAG TY_TAG_UTIL

namespace {

/// @return the characters that a value adds to the signature of a body: index, type and payload
std::size_t SignatureLength(const CDbusValue& value) {
    return value.type == DBUS_VALUE_BINARY ? std::strlen("iiay") : std::strlen("iis");
}

bool HasArgument(DBusMessageIter* pIterator) {
    return dbus_message_iter_get_arg_type(pIterator) != DBUS_TYPE_INVALID;
}

bool Is32BitBasic(DBusMessageIter* pIterator) {
    const int type = dbus_message_iter_get_arg_type(pIterator);
    return type == DBUS_TYPE_INT32 || type == DBUS_TYPE_UINT32 || type == DBUS_TYPE_BOOLEAN;
}

bool IsByteArray(DBusMessageIter* pIterator) {
    return dbus_message_iter_get_arg_type(pIterator) == DBUS_TYPE_ARRAY &&
           dbus_message_iter_get_element_type(pIterator) == DBUS_TYPE_BYTE;
}

}  // namespace

CDbusValue CDbusValue::OfInt(std::int32_t value) {
    CDbusValue result;
    result.type = DBUS_VALUE_INT;
    result.nValue = value;
    return result;
}

CDbusValue CDbusValue::OfString(std::string text) {
    CDbusValue result;
    result.type = DBUS_VALUE_STRING;
    result.strValue = std::move(text);
    return result;
}

CDbusValue CDbusValue::OfBinary(const char* pBytes, std::uint32_t size) {
    CDbusValue result;
    result.type = DBUS_VALUE_BINARY;
    result.pBuffer = std::shared_ptr<char[]>(new char[size]);
    result.nBufferSize = size;
    std::copy_n(pBytes, size, result.pBuffer.get());
    return result;
}

bool CDbusPort::AddValueToIterator(DBusMessageIter* pIterator, int value) {
    const dbus_int32_t argument = value;
    return dbus_message_iter_append_basic(pIterator, DBUS_TYPE_INT32, &argument) != FALSE;
}

bool CDbusPort::AddValueToIterator(DBusMessageIter* pIterator, const std::string& text) {
    const char* pText = text.c_str();
    std::unique_ptr<char, decltype(&g_free)> valid(nullptr, &g_free);
    if (g_utf8_validate(pText, -1, nullptr) == FALSE) {
        valid.reset(g_utf8_make_valid(pText, -1));
        pText = valid.get();
    }
    return dbus_message_iter_append_basic(pIterator, DBUS_TYPE_STRING, &pText) != FALSE;
}

// Returns early, because libdbus aborts on an append to an array that it failed to open.
bool CDbusPort::AddValueToIterator(DBusMessageIter* pIterator, const Bytes& bytes) {
    const char* pBytes = bytes.first == nullptr ? "" : bytes.first;
    const unsigned count = bytes.first == nullptr ? 0 : bytes.second;
    DBusMessageIter array;
    if (dbus_message_iter_open_container(pIterator, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE_AS_STRING,
                                         &array) == FALSE) {
        return false;
    }
    if (dbus_message_iter_append_fixed_array(&array, DBUS_TYPE_BYTE, &pBytes,
                                             static_cast<int>(count)) == FALSE) {
        dbus_message_iter_abandon_container(pIterator, &array);
        return false;
    }
    return dbus_message_iter_close_container(pIterator, &array) != FALSE;
}

bool CDbusPort::FitsMessage(DBusMessage* pMessage, const std::vector<CDbusValue>& values) {
    std::size_t signature = std::strlen(dbus_message_get_signature(pMessage));
    for (const CDbusValue& value : values) {
        signature += SignatureLength(value);
    }
    return signature <= kMaxSignature;
}

int CDbusPort::ListToMessage(DBusMessage* pMessage, int index, std::vector<CDbusValue>& values) {
    if (!FitsMessage(pMessage, values)) {
        TY_LOG_ERROR("%zu values are more than one message holds", values.size());
        return index;
    }
    DBusMessageIter iterator;
    dbus_message_iter_init_append(pMessage, &iterator);
    for (const CDbusValue& value : values) {
        if (value.type < DBUS_VALUE_INT || value.type >= DBUS_VALUE_NONE) {
            std::fputs("NOT SUPPORT TYPE", stdout);
            std::fflush(stdout);
            TY_ASSERT_FALSE_AT(
                76, "int CDbusPort::ListToMessage(DBusMessage*, int, std::vector<CDbusValue>&)");
            continue;
        }
        if (!AddTriple(&iterator, index, value)) {
            TY_LOG_ERROR("no memory for value %d of a message", index);
            return index;
        }
        ++index;
    }
    return index;
}

bool CDbusPort::AddTriple(DBusMessageIter* pIterator, int index, const CDbusValue& value) {
    if (!AddValueToIterator(pIterator, index) || !AddValueToIterator(pIterator, value.type)) {
        return false;
    }
    if (value.type == DBUS_VALUE_INT) {
        return AddValueToIterator(pIterator, value.nValue);
    }
    if (value.type == DBUS_VALUE_STRING) {
        return AddValueToIterator(pIterator, value.strValue);
    }
    return AddValueToIterator(pIterator, Bytes(value.pBuffer.get(), value.nBufferSize));
}

int CDbusPort::ValueToMessage(DBusMessage* pMessage, int index, CDbusValue& value) {
    std::vector<CDbusValue> values{value};
    return ListToMessage(pMessage, index, values);
}

// Does not read other types: libdbus would write 64 bits or a pointer over the variable, and would
// duplicate a file descriptor in the host.
template <>
int CDbusPort::PopMessage<int>(DBusMessageIter* pIterator) {
    dbus_int32_t value = 0;
    if (Is32BitBasic(pIterator)) {
        dbus_message_iter_get_basic(pIterator, &value);
    }
    dbus_message_iter_next(pIterator);
    return value;
}

template <>
std::string CDbusPort::PopMessage<std::string>(DBusMessageIter* pIterator) {
    if (dbus_message_iter_get_arg_type(pIterator) != DBUS_TYPE_STRING) {
        TY_LOG_ERROR_AT("PopMessage<std::__cxx11::basic_string<char> >", 16,
                        "String should be in DBusMessage");
        return {};
    }
    const char* pText = nullptr;
    dbus_message_iter_get_basic(pIterator, &pText);
    dbus_message_iter_next(pIterator);
    return pText;
}

template <>
const CDbusPort::Bytes CDbusPort::PopMessage<const CDbusPort::Bytes>(DBusMessageIter* pIterator) {
    if (!IsByteArray(pIterator)) {
        TY_LOG_ERROR("Array of bytes should be in DBusMessage");
        return {nullptr, 0};
    }
    const char* pBytes = nullptr;
    int count = 0;
    DBusMessageIter array;
    dbus_message_iter_recurse(pIterator, &array);
    dbus_message_iter_get_fixed_array(&array, &pBytes, &count);
    dbus_message_iter_next(pIterator);
    return {pBytes, static_cast<unsigned>(count)};
}

int CDbusPort::MessageToList(DBusMessage* pMessage, std::vector<CDbusValue>& values) {
    if (pMessage == nullptr) {
        TY_LOG_ERROR_AT("MessageToList", 126, "message is empty");
        return 0;
    }
    DBusMessageIter iterator;
    dbus_message_iter_init(pMessage, &iterator);
    while (HasArgument(&iterator) && PopTriple(&iterator, values)) {
    }
    return 1;
}

std::vector<CDbusValue> CDbusPort::MessageToList(DBusMessage* pMessage) {
    std::vector<CDbusValue> values;
    MessageToList(pMessage, values);
    return values;
}

bool CDbusPort::PopTriple(DBusMessageIter* pIterator, std::vector<CDbusValue>& values) {
    PopMessage<int>(pIterator);
    if (!HasArgument(pIterator)) {
        return false;
    }
    const int type = PopMessage<int>(pIterator);
    if (!HasArgument(pIterator)) {
        return false;
    }
    PopPayload(pIterator, type, values);
    return true;
}

void CDbusPort::PopPayload(DBusMessageIter* pIterator, int type, std::vector<CDbusValue>& values) {
    if (type == DBUS_VALUE_INT) {
        values.push_back(CDbusValue::OfInt(PopMessage<int>(pIterator)));
    } else if (type == DBUS_VALUE_STRING) {
        values.push_back(CDbusValue::OfString(PopMessage<std::string>(pIterator)));
    } else if (type == DBUS_VALUE_BINARY) {
        const Bytes bytes = PopMessage<const Bytes>(pIterator);
        values.push_back(CDbusValue::OfBinary(bytes.first, bytes.second));
    } else {
        // The payload is not skipped and is read as the next index, as every release has done.
        TY_LOG_ERROR_AT("MessageToList", 183, "invalid type!");
    }
}
