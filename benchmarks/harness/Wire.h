// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_BENCHMARKS_HARNESS_WIRE_H
#define TALLYRA_BENCHMARKS_HARNESS_WIRE_H

#include <dbus/dbus.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
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

/// Delivers records with libdbus alone: sends the bytes that the library sends, in full batches,
/// and waits for each reply. It appends a prepared image without another copy.
///
/// Threads: one.
class CBareLoop {
  public:
    /// Connects to the system bus.
    /// @throws std::runtime_error  if it cannot
    CBareLoop() {
        if (m_pConnection == nullptr) {
            throw std::runtime_error("libdbus does not connect");
        }
        dbus_connection_set_exit_on_disconnect(m_pConnection, 0);
    }
    ~CBareLoop() {
        dbus_connection_close(m_pConnection);
        dbus_connection_unref(m_pConnection);
    }
    CBareLoop(const CBareLoop&) = delete;
    CBareLoop& operator=(const CBareLoop&) = delete;

    /// Asks the bus whether the service exists.
    /// @throws std::runtime_error  if it does not
    void FindService() {
        if (dbus_bus_name_has_owner(m_pConnection, kServiceName, nullptr) == FALSE) {
            throw std::runtime_error("the bare loop finds no service");
        }
    }

    /// Calls a function of the service with one string.
    /// @throws std::runtime_error  without a reply
    void Ask(const char* pFunction, const char* pText) {
        const MessagePtr call = NewCall(pFunction);
        AppendText(call, 1, pText);
        Call(call);
    }

    /// @throws std::runtime_error  if a batch is not accepted
    void Send(int records) {
        for (int left = records; left > 0; left -= kBatchRecords) {
            Call(MakeBatch(std::min(left, kBatchRecords)));
        }
    }

  private:
    static void AppendText(const MessagePtr& call, dbus_int32_t index, const char* pText) {
        dbus_message_append_args(call.get(), DBUS_TYPE_INT32, &index, DBUS_TYPE_INT32, &kStringType,
                                 DBUS_TYPE_STRING, &pText, DBUS_TYPE_INVALID);
    }

    static MessagePtr NewCall(const char* pFunction) {
        MessagePtr call(dbus_message_new_method_call(kServiceName, kServicePath, kServiceInterface,
                                                     kServiceMethod));
        AppendText(call, 0, pFunction);
        return call;
    }

    MessagePtr MakeBatch(dbus_int32_t records) const {
        MessagePtr batch = NewCall("SendData");
        const char* pBytes = m_Image.data();
        for (dbus_int32_t i = 1; i <= records; ++i) {
            dbus_message_append_args(batch.get(), DBUS_TYPE_INT32, &i, DBUS_TYPE_INT32,
                                     &kBinaryType, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &pBytes,
                                     kImageBytes, DBUS_TYPE_INVALID);
        }
        for (dbus_int32_t i = 1; i <= records; ++i) {
            AppendText(batch, records + i, kUrl.c_str());
        }
        return batch;
    }

    void Call(const MessagePtr& call) {
        constexpr int kTimeoutMs = 3000;
        const MessagePtr reply(dbus_connection_send_with_reply_and_block(m_pConnection, call.get(),
                                                                         kTimeoutMs, nullptr));
        if (reply == nullptr) {
            throw std::runtime_error("a call of the bare loop was not answered");
        }
    }

    DBusConnection* m_pConnection = dbus_bus_get_private(DBUS_BUS_SYSTEM, nullptr);
    const std::string m_Image = std::string(kImageBytes, 'x');
};

#endif  // TALLYRA_BENCHMARKS_HARNESS_WIRE_H
