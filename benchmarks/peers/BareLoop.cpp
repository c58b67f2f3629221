// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "BareLoop.h"

#include "Stage.h"

#include <algorithm>
#include <stdexcept>

namespace {

constexpr int kTimeoutMs = 3000;

MessagePtr NewCall() {
    return MessagePtr(dbus_message_new_method_call(kServiceName, kServicePath, kServiceInterface,
                                                   kServiceMethod));
}

void AppendInt(DBusMessageIter* pIterator, dbus_int32_t value) {
    dbus_message_iter_append_basic(pIterator, DBUS_TYPE_INT32, &value);
}

void AppendText(DBusMessageIter* pIterator, int index, const char* pText) {
    AppendInt(pIterator, index);
    AppendInt(pIterator, kStringType);
    dbus_message_iter_append_basic(pIterator, DBUS_TYPE_STRING, &pText);
}

void AppendImage(DBusMessageIter* pIterator, int index, const std::vector<char>& image) {
    AppendInt(pIterator, index);
    AppendInt(pIterator, kBinaryType);
    DBusMessageIter array;
    const char* pBytes = image.data();
    dbus_message_iter_open_container(pIterator, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE_AS_STRING, &array);
    dbus_message_iter_append_fixed_array(&array, DBUS_TYPE_BYTE, &pBytes, kImageBytes);
    dbus_message_iter_close_container(pIterator, &array);
}

}  // namespace

CBareLoop::CBareLoop()
    : m_pConnection(dbus_bus_get_private(DBUS_BUS_SYSTEM, nullptr)), m_Image(kImageBytes, 'x') {
    if (m_pConnection == nullptr) {
        throw std::runtime_error("libdbus does not connect");
    }
    dbus_connection_set_exit_on_disconnect(m_pConnection, 0);
}

CBareLoop::~CBareLoop() {
    dbus_connection_close(m_pConnection);
    dbus_connection_unref(m_pConnection);
}

void CBareLoop::FindService() {
    if (dbus_bus_name_has_owner(m_pConnection, kServiceName, nullptr) == FALSE) {
        throw std::runtime_error("the bare loop finds no service");
    }
}

void CBareLoop::Ask(const char* pFunction, const char* pText) {
    const MessagePtr call = NewCall();
    DBusMessageIter iterator;
    dbus_message_iter_init_append(call.get(), &iterator);
    AppendText(&iterator, 0, pFunction);
    AppendText(&iterator, 1, pText);
    Call(call);
}

void CBareLoop::Send(int records) {
    for (int left = records; left > 0; left -= kBatchRecords) {
        Call(MakeBatch(std::min(left, kBatchRecords)));
    }
}

void CBareLoop::Call(const MessagePtr& call) {
    const MessagePtr reply(
        dbus_connection_send_with_reply_and_block(m_pConnection, call.get(), kTimeoutMs, nullptr));
    if (reply == nullptr) {
        throw std::runtime_error("a call of the bare loop was not answered");
    }
}

MessagePtr CBareLoop::MakeBatch(int records) const {
    MessagePtr batch = NewCall();
    DBusMessageIter iterator;
    dbus_message_iter_init_append(batch.get(), &iterator);
    AppendText(&iterator, 0, "SendData");
    for (int i = 1; i <= records; ++i) {
        AppendImage(&iterator, i, m_Image);
    }
    for (int i = 1; i <= records; ++i) {
        AppendText(&iterator, records + i, kUrl.c_str());
    }
    return batch;
}
