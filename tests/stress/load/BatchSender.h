// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_STRESS_LOAD_BATCHSENDER_H
#define TALLYRA_TESTS_STRESS_LOAD_BATCHSENDER_H

#include "TYDbusPort.h"
#include "TYMediaData.h"

#include <dbus/dbus.h>

#include <memory>
#include <string>
#include <vector>

/// The number of records that fit into a message.
constexpr int kFullBatch = 36;

/// @return a record of a playback with its texts set and all other fields zero
TYMediaData MakeRecord(const std::string& application, const std::string& playback);

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
    struct Unref {
        void operator()(DBusMessage* pMessage) const { dbus_message_unref(pMessage); }
    };
    using MessagePtr = std::unique_ptr<DBusMessage, Unref>;

    /// @throws std::runtime_error  when the bus cannot be reached
    explicit CBatchSender(const std::string& address);
    ~CBatchSender() override;

    /// @param urls  holds as many URLs as there are records
    /// @return a call that delivers the records
    MessagePtr MakeCall(const std::vector<TYMediaData>& records,
                        const std::vector<std::string>& urls);

    /// Sends a copy of a call.
    Answer Send(const DBusMessage* pCall);

    /// @return whether the service owns its name
    bool IsServed();

  private:
    bool IsReady() override { return true; }
};

#endif  // TALLYRA_TESTS_STRESS_LOAD_BATCHSENDER_H
