// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// GDBus reads messages on a worker thread of its own. A filter there picks the calls of the
// service's method and hands each one to the receiver's thread, which notes it and replies.
//
// A registered object would not do: GDBus checks the arguments of a call against the signature that
// the object was registered with, and the signature of this method differs from call to call. A
// filter sees every message before that check.
//
// The filter may still run while the receiver is destroyed, so it shares ownership of the state and
// of the context.

#include "receiver/Receiver.h"

#include <atomic>
#include <stdexcept>
#include <utility>

namespace receiver {
namespace {

constexpr const char* kBusName = "org.freedesktop.DBus";
constexpr const char* kBusPath = "/org/freedesktop/DBus";
constexpr int kBusTimeoutMs = 10'000;

constexpr guint32 kDoNotQueue = 4;
constexpr guint32 kPrimaryOwner = 1;
constexpr guint32 kAlreadyOwner = 4;

using MessagePtr = std::unique_ptr<GDBusMessage, Unref>;

// TSan cannot see GLib's locks; this makes the happens-before edge visible to it.
void OrderHandOver() {
    static std::atomic<unsigned> s_nHandOvers{0};
    s_nHandOvers.fetch_add(1, std::memory_order_acq_rel);
}

/// Orders a GLib callback after everything before it, and what follows after the callback.
class COrdered {
  public:
    COrdered() { OrderHandOver(); }
    ~COrdered() { OrderHandOver(); }
    COrdered(const COrdered&) = delete;
    COrdered& operator=(const COrdered&) = delete;
};

template <class Type>
void Delete(gpointer pData) {
    OrderHandOver();
    delete static_cast<Type*>(pData);
}

ConnectionPtr Share(GDBusConnection* pConnection) {
    return ConnectionPtr(G_DBUS_CONNECTION(g_object_ref(pConnection)));
}

std::string TextOf(const char* pText) {
    return pText == nullptr ? "" : pText;
}

struct Filter {
    CReceiverState state;
    std::unique_ptr<GMainContext, decltype(&g_main_context_unref)> pContext;
};

// A call on its way from GDBus's thread to the receiver's.
struct Arrival {
    CReceiverState state;
    ConnectionPtr pConnection;
    MessagePtr pMessage;
};

// A reply that may be delayed.
struct Departure {
    ConnectionPtr pConnection;
    MessagePtr pReply;
};

MessagePtr MakeReply(GDBusMessage* pCall, const Reply& reply) {
    if (reply.kind == Reply::Kind::Error) {
        return MessagePtr(g_dbus_message_new_method_error_literal(pCall, reply.strErrorName.c_str(),
                                                                  reply.strErrorText.c_str()));
    }
    MessagePtr pReply(g_dbus_message_new_method_reply(pCall));
    g_dbus_message_set_body(pReply.get(), reply.pBody.get());
    return pReply;
}

gboolean OnDeparture(gpointer pData) {
    const auto& departure = *static_cast<Departure*>(pData);
    // Fails when the connection was closed meanwhile; nothing is left to do then.
    g_dbus_connection_send_message(departure.pConnection.get(), departure.pReply.get(),
                                   G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
    return G_SOURCE_REMOVE;
}

void Send(const Arrival& arrival, const Reply& reply) {
    std::unique_ptr<Departure> pDeparture(
        new Departure{Share(arrival.pConnection.get()), MakeReply(arrival.pMessage.get(), reply)});
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
    GDBusMessage* pMessage = arrival.pMessage.get();
    const Reply reply = arrival.state.Take(g_dbus_message_get_body(pMessage),
                                           TextOf(g_dbus_message_get_sender(pMessage)));
    const bool bExpected =
        (g_dbus_message_get_flags(pMessage) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) == 0;
    if (reply.kind != Reply::Kind::Never && bExpected) {
        Send(arrival, reply);
    }
    return G_SOURCE_REMOVE;
}

bool IsCallOfService(GDBusMessage* pMessage) {
    return TextOf(g_dbus_message_get_path(pMessage)) == kServicePath &&
           TextOf(g_dbus_message_get_interface(pMessage)) == kInterface &&
           TextOf(g_dbus_message_get_member(pMessage)) == kMember;
}

void NoteStrayCall(const CReceiverState& state, GDBusMessage* pMessage) {
    const std::string strInterface = TextOf(g_dbus_message_get_interface(pMessage));
    if (!strInterface.starts_with("org.freedesktop.DBus.")) {
        state.AddProblem("a call of " + strInterface + "." +
                         TextOf(g_dbus_message_get_member(pMessage)) + " on " +
                         TextOf(g_dbus_message_get_path(pMessage)));
    }
}

// The filter, on GDBus's thread. Returning null means that the message is handled.
GDBusMessage* OnMessage(GDBusConnection* pConnection, GDBusMessage* pMessage, gboolean bIncoming,
                        gpointer pData) {
    const COrdered ordered;
    if (!bIncoming ||
        g_dbus_message_get_message_type(pMessage) != G_DBUS_MESSAGE_TYPE_METHOD_CALL) {
        return pMessage;
    }
    const auto& filter = *static_cast<Filter*>(pData);
    if (!IsCallOfService(pMessage)) {
        NoteStrayCall(filter.state, pMessage);
        return pMessage;
    }
    auto* pArrival = new Arrival{filter.state, Share(pConnection), MessagePtr(pMessage)};
    OrderHandOver();
    g_main_context_invoke_full(filter.pContext.get(), G_PRIORITY_DEFAULT, OnArrival, pArrival,
                               Delete<Arrival>);
    return nullptr;
}

}  // namespace

ConnectionPtr Connect(const std::string& strAddress, std::string* pReason) {
    GError* pError = nullptr;
    ConnectionPtr pConnection(g_dbus_connection_new_for_address_sync(
        strAddress.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &pError));
    if (pConnection == nullptr && pReason != nullptr) {
        *pReason = pError->message;
    }
    g_clear_error(&pError);
    return pConnection;
}

CReceiver::CReceiver(const std::string& strAddress, Observer observer)
    : CReceiverState(std::move(observer)),
      m_pContext(g_main_context_new(), &g_main_context_unref),
      m_pLoop(g_main_loop_new(m_pContext.get(), FALSE), &g_main_loop_unref) {
    std::promise<void> started;
    std::future<void> hasStarted = started.get_future();
    m_thread = std::thread(&CReceiver::Serve, this, strAddress, std::move(started));
    try {
        hasStarted.get();
    } catch (...) {
        m_thread.join();
        throw;
    }
}

CReceiver::~CReceiver() {
    OrderHandOver();
    // Quits from within the loop: g_main_loop_quit has no effect on a loop that does not run yet.
    g_main_context_invoke_full(
        m_pContext.get(), G_PRIORITY_DEFAULT,
        [](gpointer pLoop) -> gboolean {
            g_main_loop_quit(static_cast<GMainLoop*>(pLoop));
            return G_SOURCE_REMOVE;
        },
        m_pLoop.get(), nullptr);
    m_thread.join();
}

void CReceiver::Serve(const std::string& strAddress, std::promise<void> started) {
    GMainContext* pContext = m_pContext.get();
    g_main_context_push_thread_default(pContext);
    std::string strReason;
    m_pConnection = Connect(strAddress, &strReason);
    if (m_pConnection == nullptr) {
        g_main_context_pop_thread_default(pContext);
        started.set_exception(std::make_exception_ptr(
            std::runtime_error("cannot connect to the bus at " + strAddress + ": " + strReason)));
        return;
    }
    auto* pFilter = new Filter{*this, {g_main_context_ref(pContext), &g_main_context_unref}};
    OrderHandOver();
    const guint nFilter =
        g_dbus_connection_add_filter(m_pConnection.get(), OnMessage, pFilter, Delete<Filter>);
    started.set_value();
    g_main_loop_run(m_pLoop.get());
    OrderHandOver();

    g_dbus_connection_close_sync(m_pConnection.get(), nullptr, nullptr);
    g_dbus_connection_remove_filter(m_pConnection.get(), nFilter);
    while (g_main_context_iteration(pContext, FALSE)) {
    }
    m_pConnection.reset();
    g_main_context_pop_thread_default(pContext);
}

guint32 CReceiver::CallBus(const char* pMethod, GVariant* pArguments) const {
    GError* pError = nullptr;
    GVariant* pReply = g_dbus_connection_call_sync(
        m_pConnection.get(), kBusName, kBusPath, kBusName, pMethod, pArguments,
        G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, kBusTimeoutMs, nullptr, &pError);
    if (pReply == nullptr) {
        const std::string strText = std::string(pMethod) + ": " + pError->message;
        g_error_free(pError);
        throw std::runtime_error(strText);
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
        throw std::runtime_error(std::string(kServiceName) + " has another owner");
    }
}

void CReceiver::ReleaseName() {
    CallBus("ReleaseName", g_variant_new("(s)", kServiceName));
}

}  // namespace receiver
