// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYBatchReader.h"

#include "TYEventCodes.h"
#include "TYRecordImage.h"

#include <cstring>
#include <string_view>

namespace {

// Logs what is unusual in a record. The service stores the record in any case.
void LogAnomalies(const TYMediaData& record, const TYComplain& complain) {
    if (!HasTerminatedTexts(record)) {
        complain(TYComplaint::NO_END, "");
    }
    if (!NameOfCode(record.event)) {
        complain(TYComplaint::UNKNOWN_CODE, ": " + std::to_string(record.event));
    }
}

bool TakeImage(DBusMessageIter* pArgument, const TYComplain& complain, TYBatch& batch) {
    const char* pBytes = nullptr;
    int count = 0;
    DBusMessageIter array;
    dbus_message_iter_recurse(pArgument, &array);
    dbus_message_iter_get_fixed_array(&array, &pBytes, &count);
    const auto record = RecordFromImage({pBytes, static_cast<std::size_t>(count)});
    if (!record) {
        complain(TYComplaint::IMAGE_SIZE, ": " + std::to_string(count) + " bytes");
        return false;
    }
    LogAnomalies(*record, complain);
    batch.records.push_back(*record);
    return true;
}

bool TakePayload(DBusMessageIter* pArgument, const TYComplain& complain, TYBatch& batch) {
    const int type = dbus_message_iter_get_arg_type(pArgument);
    if (type == DBUS_TYPE_STRING) {
        const char* pUrl = nullptr;
        dbus_message_iter_get_basic(pArgument, &pUrl);
        batch.urls.emplace_back(pUrl);
        return true;
    }
    if (type == DBUS_TYPE_INT32 || !batch.urls.empty()) {
        complain(TYComplaint::ORDER, "");
        return false;
    }
    return TakeImage(pArgument, complain, batch);
}

// Advances to the payload of the value, over its index and type.
void SkipToPayload(DBusMessageIter* pArgument) {
    dbus_message_iter_next(pArgument);
    dbus_message_iter_next(pArgument);
}

}  // namespace

bool ReadBatch(DBusMessage* pCall, const TYComplain& complain, TYBatch& batch) {
    // A record is an image and mostly a URL, of three arguments each.
    constexpr std::size_t kArgumentsOfRecord = 6;
    batch.records.reserve(std::strlen(dbus_message_get_signature(pCall)) / kArgumentsOfRecord + 1);
    DBusMessageIter argument;
    dbus_message_iter_init(pCall, &argument);
    SkipToPayload(&argument);
    // Behind the function's name.
    while (dbus_message_iter_next(&argument) != 0) {
        SkipToPayload(&argument);
        if (!TakePayload(&argument, complain, batch)) {
            return false;
        }
    }
    if (batch.urls.size() != batch.records.size()) {
        complain(TYComplaint::URL_COUNT, "");
    }
    batch.urls.resize(batch.records.size());
    return true;
}
