// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// GDBus reads messages on a worker thread of its own. A filter there takes the calls of the
// service's method, notes and answers them.
//
// A registered object would not do: GDBus checks the arguments of a call against the signature that
// the object was registered with, and the signature of this method differs from call to call. A
// filter sees every message before that check.
//
// The filter may still run while the receiver is destroyed, so it shares ownership of the state.

#include "receiver/Receiver.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
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

// TSan cannot see GLib's locks; this makes the happens-before edge visible to it.
void OrderHandOver() {
    static std::atomic<unsigned> s_nHandOvers{0};
    s_nHandOvers.fetch_add(1, std::memory_order_acq_rel);
}

std::string TextOf(const char* pText) {
    return pText == nullptr ? "" : pText;
}

GDBusMessage* MakeReply(GDBusMessage* pCall, const Call& call, const std::vector<Value>& values) {
    if (!call.strProblem.empty()) {
        return g_dbus_message_new_method_error_literal(
            pCall, "org.freedesktop.DBus.Error.InvalidArgs", call.strProblem.c_str());
    }
    GDBusMessage* pReply = g_dbus_message_new_method_reply(pCall);
    g_dbus_message_set_body(pReply, EncodeBody(values));
    return pReply;
}

/// A reply and the connection that it goes to.
class CReply {
  public:
    /// @param pReply  owned from here on
    CReply(GDBusConnection* pConnection, GDBusMessage* pReply)
        : m_pConnection(G_DBUS_CONNECTION(g_object_ref(pConnection))), m_pReply(pReply) {}
    ~CReply() {
        g_object_unref(m_pReply);
        g_object_unref(m_pConnection);
    }
    CReply(const CReply&) = delete;
    CReply& operator=(const CReply&) = delete;

    void Send() const {
        // Fails when the connection was closed meanwhile; nothing is left to do then.
        g_dbus_connection_send_message(m_pConnection, m_pReply, G_DBUS_SEND_MESSAGE_FLAGS_NONE,
                                       nullptr, nullptr);
    }

    static void SendAfter(std::unique_ptr<CReply> pReply, std::chrono::milliseconds delay) {
        if (delay.count() <= 0) {
            pReply->Send();
            return;
        }
        const auto send = [](gpointer pThis) -> gboolean {
            OrderHandOver();
            static_cast<CReply*>(pThis)->Send();
            return G_SOURCE_REMOVE;
        };
        OrderHandOver();
        g_timeout_add_full(G_PRIORITY_DEFAULT, static_cast<guint>(delay.count()), send,
                           pReply.release(),
                           [](gpointer pThis) { delete static_cast<CReply*>(pThis); });
    }

  private:
    GDBusConnection* const m_pConnection;
    GDBusMessage* const m_pReply;
};

bool IsCallOfService(GDBusMessage* pMessage) {
    return TextOf(g_dbus_message_get_path(pMessage)) == kServicePath &&
           TextOf(g_dbus_message_get_interface(pMessage)) == kInterface &&
           TextOf(g_dbus_message_get_member(pMessage)) == kMember;
}

}  // namespace

std::vector<Value> RegularReply(const Call& call) {
    return call.strFunction == "Kick" ? std::vector<Value>{1} : std::vector<Value>{1, 1};
}

struct CReceiver::State {
    std::mutex mutex{};  // guards all below
    Observer observer{};
    Responder responder{};
    std::condition_variable changed{};
    std::vector<Call> calls{};
    std::vector<ReceivedRecord> records{};
    std::vector<std::string> problems{};
    std::map<std::string, std::vector<Value>> replies{};

    Response Take(const Call& call) {
        const std::lock_guard lock(mutex);
        if (!responder) {
            Keep(call);
        }
        changed.notify_all();
        if (observer) {
            observer(call, call.records);
        }
        if (responder && call.strProblem.empty()) {
            return responder(call);
        }
        const auto reply = replies.find(call.strFunction);
        return {.values = reply != replies.end() ? reply->second : RegularReply(call)};
    }

    void Keep(const Call& call) {
        calls.push_back(call);
        records.insert(records.end(), call.records.begin(), call.records.end());
        if (!call.strProblem.empty()) {
            KeepProblem(call.strFunction + " from " + call.strSender + ": " + call.strProblem);
        }
    }

    void KeepProblem(std::string strProblem) {
        if (!responder) {
            problems.push_back(std::move(strProblem));
        }
    }

    template <class List, class Condition>
    bool WaitFor(const List& list, Condition condition, std::size_t nCount,
                 std::chrono::milliseconds within) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, within, [&] {
            return std::ranges::count_if(list, condition) >= static_cast<std::ptrdiff_t>(nCount);
        });
    }
};

CReceiver::CReceiver(const std::string& strAddress, Observer observer, Responder responder)
    : m_pState(std::make_shared<State>()) {
    m_pState->observer = std::move(observer);
    m_pState->responder = std::move(responder);
    GError* pError = nullptr;
    m_pConnection = g_dbus_connection_new_for_address_sync(
        strAddress.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &pError);
    if (m_pConnection == nullptr) {
        const std::string strReason = pError->message;
        g_error_free(pError);
        throw std::runtime_error("cannot connect to the bus at " + strAddress + ": " + strReason);
    }
    auto* pShared = new std::shared_ptr<State>(m_pState);
    OrderHandOver();
    m_nFilter = g_dbus_connection_add_filter(m_pConnection, OnMessage, pShared, [](gpointer p) {
        OrderHandOver();
        delete static_cast<std::shared_ptr<State>*>(p);
    });
}

CReceiver::~CReceiver() {
    g_dbus_connection_close_sync(m_pConnection, nullptr, nullptr);
    g_dbus_connection_remove_filter(m_pConnection, m_nFilter);
    g_object_unref(m_pConnection);
    const std::lock_guard lock(m_pState->mutex);
    m_pState->observer = nullptr;
    m_pState->responder = nullptr;
}

// The filter. Returning null means that the message is handled.
GDBusMessage* CReceiver::OnMessage(GDBusConnection* pConnection, GDBusMessage* pMessage,
                                   gboolean bIncoming, gpointer pState) {
    OrderHandOver();
    if (!bIncoming ||
        g_dbus_message_get_message_type(pMessage) != G_DBUS_MESSAGE_TYPE_METHOD_CALL) {
        return pMessage;
    }
    State& state = **static_cast<std::shared_ptr<State>*>(pState);
    if (!IsCallOfService(pMessage)) {
        const std::lock_guard lock(state.mutex);
        state.KeepProblem("a call of " + TextOf(g_dbus_message_get_member(pMessage)));
        return pMessage;
    }
    Call call = DecodeCall(g_dbus_message_get_body(pMessage));
    call.strSender = TextOf(g_dbus_message_get_sender(pMessage));
    const Response response = state.Take(call);
    const bool bExpected =
        (g_dbus_message_get_flags(pMessage) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) == 0;
    if (response.kind == Response::Kind::LEAVE) {
        g_dbus_connection_close(pConnection, nullptr, nullptr, nullptr);
    } else if (bExpected && response.kind == Response::Kind::REPLY) {
        CReply::SendAfter(
            std::make_unique<CReply>(pConnection, MakeReply(pMessage, call, response.values)),
            response.delay);
    }
    g_object_unref(pMessage);
    OrderHandOver();
    return nullptr;
}

guint32 CReceiver::CallBus(const char* pMethod, GVariant* pArguments) const {
    GError* pError = nullptr;
    GVariant* pReply = g_dbus_connection_call_sync(
        m_pConnection, kBusName, kBusPath, kBusName, pMethod, pArguments, G_VARIANT_TYPE("(u)"),
        G_DBUS_CALL_FLAGS_NONE, kBusTimeoutMs, nullptr, &pError);
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

void CReceiver::SetReply(const std::string& strFunction, std::optional<std::vector<Value>> values) {
    const std::lock_guard lock(m_pState->mutex);
    if (values) {
        m_pState->replies[strFunction] = std::move(*values);
    } else {
        m_pState->replies.erase(strFunction);
    }
}

std::vector<Call> CReceiver::Calls(const std::string& strFunction) const {
    const std::lock_guard lock(m_pState->mutex);
    std::vector<Call> calls = m_pState->calls;
    std::erase_if(calls, [&](const Call& call) { return call.strFunction != strFunction; });
    return calls;
}

std::vector<ReceivedRecord> CReceiver::Records() const {
    const std::lock_guard lock(m_pState->mutex);
    return m_pState->records;
}

std::vector<std::string> CReceiver::Problems() const {
    const std::lock_guard lock(m_pState->mutex);
    return m_pState->problems;
}

bool CReceiver::WaitForRecords(std::size_t nCount, std::chrono::milliseconds within) const {
    return m_pState->WaitFor(
        m_pState->records, [](const auto&) { return true; }, nCount, within);
}

bool CReceiver::WaitForEvent(std::uint8_t event, std::size_t nCount,
                             std::chrono::milliseconds within) const {
    const auto isEvent = [&](const ReceivedRecord& one) { return one.record.event == event; };
    return m_pState->WaitFor(m_pState->records, isEvent, nCount, within);
}

bool CReceiver::WaitForCalls(const std::string& strFunction, std::size_t nCount,
                             std::chrono::milliseconds within) const {
    const auto isOfFunction = [&](const Call& call) { return call.strFunction == strFunction; };
    return m_pState->WaitFor(m_pState->calls, isOfFunction, nCount, within);
}

}  // namespace receiver
