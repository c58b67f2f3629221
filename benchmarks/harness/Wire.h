// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_BENCHMARKS_HARNESS_WIRE_H
#define TALLYRA_BENCHMARKS_HARNESS_WIRE_H

#include <dbus/dbus.h>

#include <memory>
#include <string>

// A second implementation of docs/wire-format.md: what the library is compared with shares no code
// with it.

constexpr const char* kServiceName = "org.veltra.tv.tallyra.service";
constexpr const char* kServicePath = "/org/veltra/tv/tallyra/service";
constexpr const char* kServiceInterface = "org.veltra.tv.tallyra.client";
constexpr const char* kServiceMethod = "TYCallFunction";

constexpr dbus_int32_t kIntType = 0;
constexpr dbus_int32_t kStringType = 1;
constexpr dbus_int32_t kBinaryType = 2;

constexpr int kImageBytes = 4800;
constexpr int kBatchRecords = 36;

/// The URL of each record, about as long as a player's.
inline const std::string kUrl =
    "https://vod.example.org/films/night-train/season-2/episode-07/master.m3u8?session=4f9a01c7";

struct UnrefMessage {
    void operator()(DBusMessage* pMessage) const { dbus_message_unref(pMessage); }
};
using MessagePtr = std::unique_ptr<DBusMessage, UnrefMessage>;

inline void AppendInt(DBusMessageIter* pIterator, dbus_int32_t value) {
    dbus_message_iter_append_basic(pIterator, DBUS_TYPE_INT32, &value);
}

#endif  // TALLYRA_BENCHMARKS_HARNESS_WIRE_H
