// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYCallShape.h"

#include "TYDbusPort.h"
#include "TYMediaData.h"
#include "TYRecordImage.h"

#include <cstdint>
#include <cstring>
#include <string_view>

// Problem: a call that is refused must cost little, but its records must be counted for their
// application.
//
// Idea: look at the bytes of the body where a batch of the library has them. A body begins with
//
//   offset 0: INT32 index, INT32 type
//          8: UINT32 length of the text, the text with its NUL, padding up to a multiple of 4
//
// and for the text "SendData" the first record follows at
//
//         24: INT32 index, INT32 type
//         32: UINT32 number of bytes, the bytes
//
// Every well-formed batch that begins with a record looks like this, whatever library has made it.
// The number of records is that of the arrays of bytes in the signature.

namespace {

constexpr std::string_view kBatch("\x08\0\0\0SendData\0", 13);
constexpr std::string_view kBigEndianBatch("\0\0\0\x08SendData\0", 13);
constexpr std::size_t kFunctionAt = 8;
constexpr std::size_t kImageSizeAt = 32;
constexpr std::size_t kImageAt = 36;
// 4800 in either byte order.
constexpr std::string_view kImageSize("\xc0\x12\0\0", 4);
constexpr std::string_view kBigEndianImageSize("\0\0\x12\xc0", 4);

std::string_view PartOf(std::string_view body, std::size_t offset, std::size_t size) {
    return offset < body.size() ? body.substr(offset, size) : std::string_view();
}

std::size_t CountByteArrays(std::string_view signature) {
    std::size_t count = 0;
    for (std::size_t at = signature.find("ay"); at != signature.npos;
         at = signature.find("ay", at + 2)) {
        ++count;
    }
    return count;
}

std::string ApplicationIn(std::string_view signature, std::string_view body) {
    const std::string_view size = PartOf(body, kImageSizeAt, kImageSize.size());
    if (!signature.starts_with("iisiiay") || (size != kImageSize && size != kBigEndianImageSize)) {
        return "";
    }
    return ValidText(
        PartOf(body, kImageAt + offsetof(TYMediaData, serviceID), sizeof(TYMediaData::serviceID)));
}

bool IsByteArray(DBusMessageIter* pIterator) {
    return dbus_message_iter_get_arg_type(pIterator) == DBUS_TYPE_ARRAY &&
           dbus_message_iter_get_element_type(pIterator) == DBUS_TYPE_BYTE;
}

// Advances the iterator to the payload of the value.
bool HasPayloadOfItsType(DBusMessageIter* pIterator) {
    dbus_int32_t type = DBUS_VALUE_NONE;
    for (int i = 0; i < 2; ++i) {
        if (dbus_message_iter_get_arg_type(pIterator) != DBUS_TYPE_INT32) {
            return false;
        }
        dbus_message_iter_get_basic(pIterator, &type);
        dbus_message_iter_next(pIterator);
    }
    switch (type) {
        case DBUS_VALUE_INT:
            return dbus_message_iter_get_arg_type(pIterator) == DBUS_TYPE_INT32;
        case DBUS_VALUE_STRING:
            return dbus_message_iter_get_arg_type(pIterator) == DBUS_TYPE_STRING;
        case DBUS_VALUE_BINARY:
            return IsByteArray(pIterator);
        default:
            return false;
    }
}

}  // namespace

TYCallShape ShapeOf(const TYArrival& arrival) {
    const std::string_view function = PartOf(arrival.body, kFunctionAt, kBatch.size());
    TYCallShape shape;
    shape.isBatch =
        arrival.signature.starts_with("iis") && (function == kBatch || function == kBigEndianBatch);
    shape.records = CountByteArrays(arrival.signature);
    shape.bytes = arrival.bodySize;
    if (shape.isBatch) {
        shape.application = ApplicationIn(arrival.signature, arrival.body);
    }
    return shape;
}

bool IsWellFormed(DBusMessage* pCall) {
    DBusMessageIter iterator;
    dbus_message_iter_init(pCall, &iterator);
    while (dbus_message_iter_get_arg_type(&iterator) != DBUS_TYPE_INVALID) {
        if (!HasPayloadOfItsType(&iterator)) {
            return false;
        }
        dbus_message_iter_next(&iterator);
    }
    return true;
}
