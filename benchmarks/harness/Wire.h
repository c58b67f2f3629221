// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_BENCHMARKS_HARNESS_WIRE_H
#define TALLYRA_BENCHMARKS_HARNESS_WIRE_H

#include <dbus/dbus.h>

#include <memory>

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

struct UnrefMessage {
    void operator()(DBusMessage* pMessage) const { dbus_message_unref(pMessage); }
};
using MessagePtr = std::unique_ptr<DBusMessage, UnrefMessage>;

#endif  // TALLYRA_BENCHMARKS_HARNESS_WIRE_H
