// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "receiver/Receiver.h"

#include <algorithm>
#include <atomic>
#include <stdexcept>
#include <string_view>

namespace receiver {
namespace {

constexpr const char* kBusName = "org.freedesktop.DBus";
constexpr const char* kBusPath = "/org/freedesktop/DBus";
constexpr int kBusTimeoutMs = 10'000;

constexpr guint32 kDoNotQueue = 4;
constexpr guint32 kPrimaryOwner = 1;
constexpr guint32 kAlreadyOwner = 4;

// Turns a GError into an exception.
class CError {
  public:
    CError() = default;
    ~CError() { g_clear_error(&m_pError); }
    CError(const CError&) = delete;
    CError& operator=(const CError&) = delete;

    GError** Out() { return &m_pError; }
    [[noreturn]] void Throw(const std::string& strWhat) const {
        throw std::runtime_error(strWhat + ": " + (m_pError ? m_pError->message : "no reason"));
    }

  private:
    GError* m_pError = nullptr;
};

// GLib's own locks order what its threads hand to one another. This says it in terms of the
// language, for whoever does not see into GLib: race detectors do not.
void OrderHandOver() {
    static std::atomic<unsigned> s_nHandOvers{0};
    s_nHandOvers.fetch_add(1, std::memory_order_acq_rel);
}

/// Orders a callback of GLib's behind what came before it, and what follows behind the callback.
class COrdered {
  public:
    COrdered() { OrderHandOver(); }
    ~COrdered() { OrderHandOver(); }
    COrdered(const COrdered&) = delete;
    COrdered& operator=(const COrdered&) = delete;
};

struct Filter {
    std::shared_ptr<CReceiverState> pState;
    GMainContext* pContext;
};

// A call on its way from the bus to the receiver's thread.
struct Arrival {
    std::shared_ptr<CReceiverState> pState;
    GDBusConnection* pConnection;
    GDBusMessage* pMessage;

    Arrival(std::shared_ptr<CReceiverState> pTheState, GDBusConnection* pTheConnection,
            GDBusMessage* pTheMessage)
        : pState(std::move(pTheState)),
          pConnection(G_DBUS_CONNECTION(g_object_ref(pTheConnection))),
          pMessage(pTheMessage) {}
    ~Arrival() {
        g_object_unref(pMessage);
        g_object_unref(pConnection);
    }
    Arrival(const Arrival&) = delete;
    Arrival& operator=(const Arrival&) = delete;
};

// A reply that waits for its time.
struct Departure {
    GDBusConnection* pConnection;
    GDBusMessage* pReply;

    Departure(GDBusConnection* pTheConnection, GDBusMessage* pTheReply)
        : pConnection(G_DBUS_CONNECTION(g_object_ref(pTheConnection))), pReply(pTheReply) {}
    ~Departure() {
        g_object_unref(pReply);
        g_object_unref(pConnection);
    }
    Departure(const Departure&) = delete;
    Departure& operator=(const Departure&) = delete;
};

template <class Type>
void Delete(gpointer pData) {
    OrderHandOver();
    delete static_cast<Type*>(pData);
}

GDBusMessage* MakeReply(GDBusMessage* pCall, const Reply& reply) {
    if (reply.kind == Reply::Kind::Error) {
        return g_dbus_message_new_method_error_literal(pCall, reply.strErrorName.c_str(),
                                                       reply.strErrorText.c_str());
    }
    GDBusMessage* pReply = g_dbus_message_new_method_reply(pCall);
    g_dbus_message_set_body(pReply, reply.pBody.get());
    return pReply;
}

gboolean OnDeparture(gpointer pData) {
    const auto* pDeparture = static_cast<Departure*>(pData);
    // A caller that has gone meanwhile is no failure of ours.
    g_dbus_connection_send_message(pDeparture->pConnection, pDeparture->pReply,
                                   G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
    return G_SOURCE_REMOVE;
}

void Send(const Arrival& arrival, const Reply& reply) {
    auto pDeparture =
        std::make_unique<Departure>(arrival.pConnection, MakeReply(arrival.pMessage, reply));
    if (reply.delay.count() <= 0) {
        OnDeparture(pDeparture.get());
        return;
    }
    GSource* pSource = g_timeout_source_new(static_cast<guint>(reply.delay.count()));
    g_source_set_callback(pSource, OnDeparture, pDeparture.release(), Delete<Departure>);
    g_source_attach(pSource, g_main_context_get_thread_default());
    g_source_unref(pSource);
}

gboolean OnArrival(gpointer pData) {
    const COrdered ordered;
    const auto& arrival = *static_cast<Arrival*>(pData);
    const char* pSender = g_dbus_message_get_sender(arrival.pMessage);
    const Reply reply = arrival.pState->Take(g_dbus_message_get_body(arrival.pMessage),
                                             pSender == nullptr ? "nobody" : pSender);
    const bool bAwaited =
        (g_dbus_message_get_flags(arrival.pMessage) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) == 0;
    if (reply.kind != Reply::Kind::Never && bAwaited) {
        Send(arrival, reply);
    }
    return G_SOURCE_REMOVE;
}

std::string TextOf(const char* pText) {
    return pText == nullptr ? "" : pText;
}

bool IsOurs(GDBusMessage* pMessage) {
    return TextOf(g_dbus_message_get_path(pMessage)) == kServicePath &&
           TextOf(g_dbus_message_get_interface(pMessage)) == kInterface &&
           TextOf(g_dbus_message_get_member(pMessage)) == kMember;
}

void NoteStrayCall(CReceiverState& state, GDBusMessage* pMessage) {
    const std::string strInterface = TextOf(g_dbus_message_get_interface(pMessage));
    if (!strInterface.starts_with("org.freedesktop.DBus.")) {
        state.AddProblem("a call of " + strInterface + "." +
                         TextOf(g_dbus_message_get_member(pMessage)) + " on " +
                         TextOf(g_dbus_message_get_path(pMessage)));
    }
}

// A registered object will not do: GDBus checks the arguments of a call against the signature that
// the object was registered with, and the signature of this method differs from call to call. A
// filter sees every message before that. It runs on GDBus's own thread.
GDBusMessage* OnMessage(GDBusConnection* pConnection, GDBusMessage* pMessage, gboolean bIncoming,
                        gpointer pData) {
    const COrdered ordered;
    if (!bIncoming ||
        g_dbus_message_get_message_type(pMessage) != G_DBUS_MESSAGE_TYPE_METHOD_CALL) {
        return pMessage;
    }
    const auto& filter = *static_cast<Filter*>(pData);
    if (!IsOurs(pMessage)) {
        NoteStrayCall(*filter.pState, pMessage);
        return pMessage;
    }
    auto pArrival = std::make_unique<Arrival>(filter.pState, pConnection, pMessage);
    OrderHandOver();
    g_main_context_invoke_full(filter.pContext, G_PRIORITY_DEFAULT, OnArrival, pArrival.release(),
                               Delete<Arrival>);
    return nullptr;
}

void OnClosed(GDBusConnection*, gboolean, GError*, gpointer pData) {
    const COrdered ordered;
    static_cast<CReceiverState*>(pData)->SetDisconnected();
}

void DeleteFilter(gpointer pData) {
    OrderHandOver();
    const std::unique_ptr<Filter> pFilter(static_cast<Filter*>(pData));
    g_main_context_unref(pFilter->pContext);
}

GDBusConnection* Connect(const std::string& strAddress) {
    CError error;
    GDBusConnection* pConnection = g_dbus_connection_new_for_address_sync(
        strAddress.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, error.Out());
    if (pConnection == nullptr) {
        error.Throw("cannot connect to the bus at " + strAddress);
    }
    return pConnection;
}

bool HasFunction(const Call& call, const std::string& strFunction) {
    return call.strFunction == strFunction;
}

}  // namespace

CReceiver::CReceiver(const std::string& strAddress, Observer observer)
    : m_pState(std::make_shared<CReceiverState>(std::move(observer))),
      m_pContext(g_main_context_new()),
      m_pLoop(g_main_loop_new(m_pContext, FALSE)) {
    std::promise<void> started;
    std::future<void> hasStarted = started.get_future();
    m_thread = std::thread(&CReceiver::Serve, this, strAddress, std::move(started));
    try {
        hasStarted.get();
    } catch (...) {
        m_thread.join();
        g_main_loop_unref(m_pLoop);
        g_main_context_unref(m_pContext);
        throw;
    }
}

CReceiver::~CReceiver() {
    // Quit from within: a loop that has not begun to run yet would miss a call from here.
    g_main_context_invoke_full(
        m_pContext, G_PRIORITY_DEFAULT,
        [](gpointer pLoop) -> gboolean {
            g_main_loop_quit(static_cast<GMainLoop*>(pLoop));
            return G_SOURCE_REMOVE;
        },
        m_pLoop, nullptr);
    m_thread.join();
    g_main_loop_unref(m_pLoop);
    g_main_context_unref(m_pContext);
}

void CReceiver::Serve(const std::string& strAddress, std::promise<void> started) {
    g_main_context_push_thread_default(m_pContext);
    try {
        m_pConnection = Connect(strAddress);
    } catch (...) {
        g_main_context_pop_thread_default(m_pContext);
        started.set_exception(std::current_exception());
        return;
    }
    std::unique_ptr<Filter> pFilter(new Filter{m_pState, g_main_context_ref(m_pContext)});
    OrderHandOver();
    const guint nFilter =
        g_dbus_connection_add_filter(m_pConnection, OnMessage, pFilter.release(), DeleteFilter);
    const gulong nClosed =
        g_signal_connect(m_pConnection, "closed", G_CALLBACK(OnClosed), m_pState.get());
    // A bus that went before that would not be noticed.
    if (g_dbus_connection_is_closed(m_pConnection)) {
        m_pState->SetDisconnected();
    }
    started.set_value();
    g_main_loop_run(m_pLoop);
    OrderHandOver();

    g_signal_handler_disconnect(m_pConnection, nClosed);
    g_dbus_connection_close_sync(m_pConnection, nullptr, nullptr);
    g_dbus_connection_remove_filter(m_pConnection, nFilter);
    while (g_main_context_iteration(m_pContext, FALSE)) {
    }
    g_object_unref(m_pConnection);
    g_main_context_pop_thread_default(m_pContext);
}

guint32 CReceiver::CallBus(const char* pMethod, GVariant* pArguments) const {
    CError error;
    GVariant* pReply = g_dbus_connection_call_sync(
        m_pConnection, kBusName, kBusPath, kBusName, pMethod, pArguments, G_VARIANT_TYPE("(u)"),
        G_DBUS_CALL_FLAGS_NONE, kBusTimeoutMs, nullptr, error.Out());
    if (pReply == nullptr) {
        error.Throw(pMethod);
    }
    guint32 nResult = 0;
    g_variant_get(pReply, "(u)", &nResult);
    g_variant_unref(pReply);
    return nResult;
}

void CReceiver::OwnName() {
    const guint32 nResult =
        CallBus("RequestName", g_variant_new("(su)", kServiceName, kDoNotQueue));
    if (nResult != kPrimaryOwner && nResult != kAlreadyOwner) {
        throw std::runtime_error(std::string(kServiceName) + " belongs to somebody else");
    }
}

void CReceiver::ReleaseName() {
    // Whether it was ours, another's or nobody's: it is not ours now.
    CallBus("ReleaseName", g_variant_new("(s)", kServiceName));
}

bool CReceiver::IsDisconnected() const {
    return m_pState->IsDisconnected();
}

bool CReceiver::WaitForDisconnect(std::chrono::milliseconds within) const {
    return m_pState->WaitForDisconnect(within);
}

void CReceiver::SetPolicy(std::int32_t nPolicy) {
    m_pState->SetPolicy(nPolicy);
}

void CReceiver::SetAccepted(std::int32_t nAccepted) {
    m_pState->SetAccepted(nAccepted);
}

void CReceiver::SetStatus(const std::string& strFunction, std::int32_t nStatus) {
    m_pState->SetStatus(strFunction, nStatus);
}

void CReceiver::SetReply(const std::string& strFunction, const Reply& reply) {
    m_pState->SetReply(strFunction, reply);
}

std::vector<Call> CReceiver::Calls() const {
    return m_pState->Calls();
}

std::vector<Call> CReceiver::Calls(const std::string& strFunction) const {
    std::vector<Call> calls = m_pState->Calls();
    std::erase_if(calls, [&](const Call& call) { return !HasFunction(call, strFunction); });
    return calls;
}

std::vector<ReceivedRecord> CReceiver::Records() const {
    return m_pState->Records();
}

std::vector<std::string> CReceiver::Problems() const {
    return m_pState->Problems();
}

bool CReceiver::WaitForRecords(std::size_t nCount, std::chrono::milliseconds within) const {
    return m_pState->WaitUntil(
        [&](const auto&, const auto& records) { return records.size() >= nCount; }, within);
}

bool CReceiver::WaitForEvent(std::uint8_t event, std::size_t nCount,
                             std::chrono::milliseconds within) const {
    const auto count = [&](const auto&, const std::vector<ReceivedRecord>& records) {
        return std::count_if(records.begin(), records.end(), [&](const ReceivedRecord& received) {
                   return received.record.event == event;
               }) >= static_cast<std::ptrdiff_t>(nCount);
    };
    return m_pState->WaitUntil(count, within);
}

bool CReceiver::WaitForCalls(const std::string& strFunction, std::size_t nCount,
                             std::chrono::milliseconds within) const {
    const auto count = [&](const std::vector<Call>& calls, const auto&) {
        return std::count_if(calls.begin(), calls.end(), [&](const Call& call) {
                   return HasFunction(call, strFunction);
               }) >= static_cast<std::ptrdiff_t>(nCount);
    };
    return m_pState->WaitUntil(count, within);
}

}  // namespace receiver
