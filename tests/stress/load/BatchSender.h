// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_STRESS_LOAD_BATCHSENDER_H
#define TALLYRA_TESTS_STRESS_LOAD_BATCHSENDER_H

#include "TYBusNames.h"
#include "TYDbusPort.h"
#include "TYMediaData.h"
#include "TYMessagePtr.h"
#include "TYRecordImage.h"

#include <dbus/dbus.h>

#include <stdexcept>
#include <string>
#include <vector>

/// The number of records that fit into a message.
constexpr int kFullBatch = 36;

/// @return a record of a playback with its texts set and all other fields zero
inline TYMediaData MakeRecord(const std::string& application, const std::string& playback) {
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

/// The service's reply to a batch.
enum class Answer {
    kAccepted,  ///< stored
    kRefused,   ///< not stored
    NONE,       ///< no reply: stored or not
};

/// Sends batches over a bus connection of its own, as the library does.
///
/// Threads: one for each object; objects are independent.
class CBatchSender : private CDbusPort {
  public:
    using MessagePtr = TYMessagePtr;

    /// @throws std::runtime_error  when the bus cannot be reached
    explicit CBatchSender(const std::string& address) {
        dbus_threads_init_default();
        m_pConnection = dbus_connection_open_private(address.c_str(), nullptr);
        if (m_pConnection == nullptr || dbus_bus_register(m_pConnection, nullptr) == 0) {
            throw std::runtime_error("there is no bus at " + address);
        }
        dbus_connection_set_exit_on_disconnect(m_pConnection, 0);
    }
    ~CBatchSender() override {
        dbus_connection_close(m_pConnection);
        dbus_connection_unref(m_pConnection);
    }

    /// @param urls  holds as many URLs as there are records
    /// @return a call that delivers the records
    MessagePtr MakeCall(const std::vector<TYMediaData>& records,
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

    /// Sends a copy of a call.
    Answer Send(const DBusMessage* pCall) {
        constexpr int kTimeoutMs = 20'000;
        const MessagePtr copy(dbus_message_copy(pCall));
        const MessagePtr reply(dbus_connection_send_with_reply_and_block(m_pConnection, copy.get(),
                                                                         kTimeoutMs, nullptr));
        const auto values =
            reply == nullptr ? std::vector<CDbusValue>() : MessageToList(reply.get());
        // The reply is the bus's when the service died before it replied.
        if (values.empty() || values[0].type != DBUS_VALUE_INT) {
            return Answer::NONE;
        }
        const bool accepted = values.size() == 2 && values[0].nValue != 0 && values[1].nValue != 0;
        return accepted ? Answer::kAccepted : Answer::kRefused;
    }

    /// @return whether the service owns its name
    bool IsServed() {
        return dbus_bus_name_has_owner(m_pConnection, TYBusNames::kService, nullptr) != 0;
    }

  private:
    bool IsReady() override { return true; }
};

#endif  // TALLYRA_TESTS_STRESS_LOAD_BATCHSENDER_H
