// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SUPPORT_RECEIVER_RECEIVER_H
#define TALLYRA_TESTS_SUPPORT_RECEIVER_RECEIVER_H

#include "receiver/ReceiverState.h"

#include <gio/gio.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace receiver {

constexpr const char* kServiceName = "org.veltra.tv.tallyra.service";
constexpr const char* kServicePath = "/org/veltra/tv/tallyra/service";
constexpr const char* kInterface = "org.veltra.tv.tallyra.client";
constexpr const char* kMember = "TYCallFunction";

/// A receiving service on a bus: owns the service's name, answers calls, keeps what arrives.
///
/// Threads: it serves on a thread of its own; all operations may be called from any thread but
/// that one. Waiting operations give up when their time is over and say so.
class CReceiver {
  public:
    /// Connects; owns no name yet.
    /// @param strAddress  of the bus
    /// @param observer    runs on the receiver's thread and must not call the receiver; may be
    /// empty
    /// @throws std::runtime_error  when the bus cannot be reached
    explicit CReceiver(const std::string& strAddress, Observer observer = {});
    /// Gives the name back and disconnects.
    ~CReceiver();

    CReceiver(const CReceiver&) = delete;
    CReceiver& operator=(const CReceiver&) = delete;

    /// Takes the service's name.
    /// @throws std::runtime_error  when somebody else has it or the bus refuses
    void OwnName();
    /// Gives the service's name back; does nothing when it is not owned.
    void ReleaseName();
    /// @return whether the bus has ended the connection
    bool IsDisconnected() const;
    /// Waits for the end of the connection.
    /// @return whether it has ended
    bool WaitForDisconnect(std::chrono::milliseconds within) const;

    /// Sets the policy that "GetPolicyInfo" answers with by the rules; 1 until set.
    void SetPolicy(std::int32_t nPolicy);
    /// Sets the acceptance that "SendData" answers with by the rules; 1 until set.
    void SetAccepted(std::int32_t nAccepted);
    /// Sets the status that a function answers with by the rules; 1 until set.
    void SetStatus(const std::string& strFunction, std::int32_t nStatus);
    /// Sets how calls of a function that arrive from now on are answered.
    void SetReply(const std::string& strFunction, const Reply& reply);

    /// @return all calls in the order of arrival, the malformed ones too
    std::vector<Call> Calls() const;
    /// @return the calls of one function in the order of arrival
    std::vector<Call> Calls(const std::string& strFunction) const;
    /// @return the records of all batches in the order of arrival, those of refused batches too
    std::vector<ReceivedRecord> Records() const;
    /// @return what was wrong with calls and records, in the order of arrival
    std::vector<std::string> Problems() const;

    /// Waits for records.
    /// @return whether there are at least that many
    bool WaitForRecords(std::size_t nCount, std::chrono::milliseconds within) const;
    /// Waits for a record of an event.
    /// @return whether there are at least that many of it
    bool WaitForEvent(std::uint8_t event, std::size_t nCount,
                      std::chrono::milliseconds within) const;
    /// Waits for calls of a function.
    /// @return whether there are at least that many
    bool WaitForCalls(const std::string& strFunction, std::size_t nCount,
                      std::chrono::milliseconds within) const;

  private:
    void Serve(const std::string& strAddress, std::promise<void> started);
    guint32 CallBus(const char* pMethod, GVariant* pArguments) const;

    std::shared_ptr<CReceiverState> m_pState;
    GMainContext* m_pContext;                  // owned; only the thread iterates it
    GMainLoop* m_pLoop;                        // owned
    GDBusConnection* m_pConnection = nullptr;  // owned; set before the constructor returns
    std::thread m_thread;
};

}  // namespace receiver

#endif  // TALLYRA_TESTS_SUPPORT_RECEIVER_RECEIVER_H
