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

/// The most records that a message has room for.
constexpr int kFullBatch = 36;

/// @return a record of a playback, its texts filled in, everything else zero
TYMediaData MakeRecord(const std::string& application, const std::string& playback);

/// What the service said to a batch.
enum class Answer {
    kAccepted,  ///< it has it
    kRefused,   ///< it answered that it has not
    NONE,       ///< no answer came: it may have it or not
};

/// Sends batches over a bus connection of its own, as a player's library does.
///
/// Threads: one for each object; objects are independent.
class CBatchSender : private CDbusPort {
  public:
    struct Unref {
        void operator()(DBusMessage* pMessage) const { dbus_message_unref(pMessage); }
    };
    using MessagePtr = std::unique_ptr<DBusMessage, Unref>;

    /// @throws std::runtime_error  when there is no bus at the address
    explicit CBatchSender(const std::string& address);
    ~CBatchSender() override;

    /// @return a call that delivers the records; as many URLs as records
    MessagePtr MakeCall(const std::vector<TYMediaData>& records,
                        const std::vector<std::string>& urls);

    /// Sends a call, which can be sent again afterwards.
    Answer Send(const DBusMessage* pCall);

    /// @return whether the service has its name
    bool IsServed();

  private:
    bool IsReady() override { return true; }
};

#endif  // TALLYRA_TESTS_STRESS_LOAD_BATCHSENDER_H
