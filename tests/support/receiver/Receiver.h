// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SUPPORT_RECEIVER_RECEIVER_H
#define TALLYRA_TESTS_SUPPORT_RECEIVER_RECEIVER_H

#include "receiver/ReceiverState.h"

#include <gio/gio.h>

#include <future>
#include <memory>
#include <string>
#include <thread>

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

/// A receiving service on a bus: owns the service's name, answers calls and keeps what arrives, to
/// be read and waited for with the operations of CReceiverState.
///
/// Threads: it serves on a thread of its own; all operations may be called from any other thread.
class CReceiver : public CReceiverState {
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

  private:
    using ContextPtr = std::unique_ptr<GMainContext, decltype(&g_main_context_unref)>;
    using LoopPtr = std::unique_ptr<GMainLoop, decltype(&g_main_loop_unref)>;

    void Serve(const std::string& strAddress, std::promise<void> started);
    guint32 CallBus(const char* pMethod, GVariant* pArguments) const;

    const ContextPtr m_pContext;  // only the thread iterates it
    const LoopPtr m_pLoop;
    ConnectionPtr m_pConnection;  // set before the constructor returns
    std::thread m_thread;
};

}  // namespace receiver

#endif  // TALLYRA_TESTS_SUPPORT_RECEIVER_RECEIVER_H
