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

struct Unref {
    void operator()(gpointer pObject) const { g_object_unref(pObject); }
};
using ConnectionPtr = std::unique_ptr<GDBusConnection, Unref>;

/// Connects to a bus.
/// @return null when there is no bus at the address; then *pReason says why
ConnectionPtr Connect(const std::string& strAddress, std::string* pReason = nullptr);

/// A receiving service on a bus: owns the service's name, answers calls and keeps what arrives.
///
/// Threads: it serves on a thread of its own; all operations may be called from any other thread.
class CReceiver {
  public:
    /// Connects; owns no name yet.
    /// @param strAddress  names the bus
    /// @param observer    runs on the receiver's thread and must not call the receiver; may be
    ///                    empty
    /// @throws std::runtime_error  when the bus cannot be reached
    explicit CReceiver(const std::string& strAddress, Observer observer = {});
    /// Releases the name and disconnects. Delayed replies that are not due yet are not sent.
    ~CReceiver();

    CReceiver(const CReceiver&) = delete;
    CReceiver& operator=(const CReceiver&) = delete;

    /// Takes the service's name.
    /// @throws std::runtime_error  when another connection owns it or the bus refuses
    void OwnName();
    /// Releases the service's name if this connection owns it.
    void ReleaseName();

    /// Sets the policy in regular replies to "GetPolicyInfo"; 1 until set.
    void SetPolicy(std::int32_t nPolicy) { m_pState->SetPolicy(nPolicy); }
    /// Sets the acceptance in regular replies to "SendData"; 1 until set.
    void SetAccepted(std::int32_t nAccepted) { m_pState->SetAccepted(nAccepted); }
    /// Sets the status in regular replies to a function; 1 until set.
    void SetStatus(const std::string& strFunction, std::int32_t nStatus) {
        m_pState->SetStatus(strFunction, nStatus);
    }
    /// Sets the reply to calls of a function that arrive from now on.
    void SetReply(const std::string& strFunction, const Reply& reply) {
        m_pState->SetReply(strFunction, reply);
    }

    /// @return all calls in the order of arrival, including malformed ones
    std::vector<Call> Calls() const { return m_pState->Calls(); }
    /// @return the calls of one function in the order of arrival
    std::vector<Call> Calls(const std::string& strFunction) const {
        return m_pState->Calls(strFunction);
    }
    /// @return the records of all batches in the order of arrival, including refused batches
    std::vector<ReceivedRecord> Records() const { return m_pState->Records(); }
    /// @return what was wrong with calls and records, in the order of arrival
    std::vector<std::string> Problems() const { return m_pState->Problems(); }

    /// @return whether at least `nCount` records arrived before the time was over
    bool WaitForRecords(std::size_t nCount, std::chrono::milliseconds within) const {
        return m_pState->WaitForRecords(nCount, within);
    }
    /// @return whether at least `nCount` records of an event arrived before the time was over
    bool WaitForEvent(std::uint8_t event, std::size_t nCount,
                      std::chrono::milliseconds within) const {
        return m_pState->WaitForEvent(event, nCount, within);
    }
    /// @return whether at least `nCount` calls of a function arrived before the time was over
    bool WaitForCalls(const std::string& strFunction, std::size_t nCount,
                      std::chrono::milliseconds within) const {
        return m_pState->WaitForCalls(strFunction, nCount, within);
    }

  private:
    using ContextPtr = std::unique_ptr<GMainContext, decltype(&g_main_context_unref)>;
    using LoopPtr = std::unique_ptr<GMainLoop, decltype(&g_main_loop_unref)>;

    void Serve(const std::string& strAddress, std::promise<void> started);
    guint32 CallBus(const char* pMethod, GVariant* pArguments) const;

    const std::shared_ptr<CReceiverState> m_pState;
    const ContextPtr m_pContext;  // only the thread iterates it
    const LoopPtr m_pLoop;
    ConnectionPtr m_pConnection;  // set before the constructor returns
    std::thread m_thread;
};

}  // namespace receiver

#endif  // TALLYRA_TESTS_SUPPORT_RECEIVER_RECEIVER_H
