// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "BatchSender.h"

#include "TYBusNames.h"
#include "TYRecordImage.h"
#include "TYServiceHandler.h"

#include <stdexcept>

namespace {

constexpr int kTimeoutMs = 20'000;

DBusConnection* Connect(const std::string& address) {
    dbus_threads_init_default();
    DBusConnection* pConnection = dbus_connection_open_private(address.c_str(), nullptr);
    if (pConnection == nullptr || dbus_bus_register(pConnection, nullptr) == 0) {
        throw std::runtime_error("there is no bus at " + address);
    }
    dbus_connection_set_exit_on_disconnect(pConnection, 0);
    return pConnection;
}

// The reply is the bus's when the service died before it replied.
Answer Understand(const std::vector<CDbusValue>& values) {
    if (values.empty() || values[0].type != DBUS_VALUE_INT) {
        return Answer::NONE;
    }
    const bool accepted = values.size() == 2 && values[0].nValue != 0 && values[1].nValue != 0;
    return accepted ? Answer::kAccepted : Answer::kRefused;
}

}  // namespace

TYMediaData MakeRecord(const std::string& application, const std::string& playback) {
    TYMediaData record{};
    record.networkType = 2;
    CopyText(record.playbackID, playback.c_str());
    CopyText(record.serviceVersion, "2.4.1");
    CopyText(record.serviceID, application.c_str());
    CopyText(record.content.channelID, "sports-1");
    CopyText(record.content.title, "Cup Final, Live");
    CopyText(record.content.genre, "Sports");
    CopyText(record.content.customInfo, "subscription=premium;region=north;device=panel-55");
    return record;
}

CBatchSender::CBatchSender(const std::string& address) {
    m_pConnection = Connect(address);
}

CBatchSender::~CBatchSender() {
    dbus_connection_close(m_pConnection);
    dbus_connection_unref(m_pConnection);
}

CBatchSender::MessagePtr CBatchSender::MakeCall(const std::vector<TYMediaData>& records,
                                                const std::vector<std::string>& urls) {
    MessagePtr call(dbus_message_new_method_call(TYBusNames::kService, TYBusNames::kPath,
                                                 TYBusNames::kInterface, TYBusNames::kMethod));
    std::vector<CDbusValue> values{CDbusValue::OfString("SendData")};
    for (const TYMediaData& record : records) {
        const std::string_view image = ImageOf(record);
        values.push_back(
            CDbusValue::OfBinary(image.data(), static_cast<std::uint32_t>(image.size())));
    }
    for (const std::string& url : urls) {
        values.push_back(CDbusValue::OfString(url));
    }
    dbus_message_set_auto_start(call.get(), 0);
    ListToMessage(call.get(), 0, values);
    return call;
}

Answer CBatchSender::Send(const DBusMessage* pCall) {
    const MessagePtr copy(dbus_message_copy(pCall));
    const MessagePtr reply(
        dbus_connection_send_with_reply_and_block(m_pConnection, copy.get(), kTimeoutMs, nullptr));
    return reply == nullptr ? Answer::NONE : Understand(MessageToList(reply.get()));
}

bool CBatchSender::IsServed() {
    return dbus_bus_name_has_owner(m_pConnection, TYBusNames::kService, nullptr) != 0;
}
