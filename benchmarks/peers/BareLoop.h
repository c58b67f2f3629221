// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_BENCHMARKS_PEERS_BARELOOP_H
#define TALLYRA_BENCHMARKS_PEERS_BARELOOP_H

#include "Wire.h"

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

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
        DBusMessageIter iterator;
        const MessagePtr call = NewCall(&iterator, pFunction);
        AppendText(&iterator, 1, pText);
        Call(call);
    }

    /// @throws std::runtime_error  if a batch is not accepted
    void Send(int records) {
        for (int left = records; left > 0; left -= kBatchRecords) {
            Call(MakeBatch(std::min(left, kBatchRecords)));
        }
    }

  private:
    static MessagePtr NewCall(DBusMessageIter* pIterator, const char* pFunction) {
        MessagePtr call(dbus_message_new_method_call(kServiceName, kServicePath, kServiceInterface,
                                                     kServiceMethod));
        dbus_message_iter_init_append(call.get(), pIterator);
        AppendText(pIterator, 0, pFunction);
        return call;
    }

    static void AppendText(DBusMessageIter* pIterator, int index, const char* pText) {
        AppendInt(pIterator, index);
        AppendInt(pIterator, kStringType);
        dbus_message_iter_append_basic(pIterator, DBUS_TYPE_STRING, &pText);
    }

    void AppendImage(DBusMessageIter* pIterator, int index) const {
        AppendInt(pIterator, index);
        AppendInt(pIterator, kBinaryType);
        DBusMessageIter array;
        const char* pBytes = m_Image.data();
        dbus_message_iter_open_container(pIterator, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE_AS_STRING,
                                         &array);
        dbus_message_iter_append_fixed_array(&array, DBUS_TYPE_BYTE, &pBytes, kImageBytes);
        dbus_message_iter_close_container(pIterator, &array);
    }

    MessagePtr MakeBatch(int records) const {
        DBusMessageIter iterator;
        MessagePtr batch = NewCall(&iterator, "SendData");
        for (int i = 1; i <= records; ++i) {
            AppendImage(&iterator, i);
        }
        for (int i = 1; i <= records; ++i) {
            AppendText(&iterator, records + i, kUrl.c_str());
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
    const std::vector<char> m_Image = std::vector<char>(kImageBytes, 'x');
};

#endif  // TALLYRA_BENCHMARKS_PEERS_BARELOOP_H
