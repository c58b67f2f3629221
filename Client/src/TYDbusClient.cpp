// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYDbusClient.h"

#include "TYDbusError.h"
#include "TYLog.h"

#include <algorithm>
#include <utility>

#define TY_LOG_TAG TY_TAG

namespace {

constexpr const char kPath[] = "/org/veltra/tv/tallyra/service";
constexpr const char kMethod[] = "TYCallFunction";

}  // namespace

CDbusClient::CDbusClient(const char* pInterface, const char* pService, ITYBus& bus, ITYClock& clock)
    : m_Bus(bus), m_Clock(clock) {
    m_Bus.InitThreads();
    CTYDbusError error;
    m_pConnection = m_Bus.GetPrivate(error.Get());
    if (error.IsSet()) {
        TY_LOG_ERROR_AT("CDbusClient", 25, "Dbus connection failed: %s", error.Message());
        return;
    }
    TY_LOG_INFO_AT("CDbusClient", 29, "hello> Dbus session [%s] -> [%s]", pInterface, pService);
    m_strInterface = pInterface;
    m_strService = pService;
    m_bReady = m_pConnection != nullptr;
    m_strPath = kPath;
    m_strMethod = kMethod;
}

CDbusClient::~CDbusClient() {
    TY_LOG_INFO_AT("~CDbusClient", 45, "bye> terminal dbus client");
    if (m_pConnection != nullptr) {
        m_Bus.Close(m_pConnection);
    }
}

bool CDbusClient::IsReady() {
    return IsConnected();
}

bool CDbusClient::IsConnected() {
    if (!m_bReady) {
        TY_LOG_ERROR_AT("IsConnected", 54, "Connection is not ready. should re-create CDbusClient");
        return false;
    }
    bool connected = false;
    {
        CTYLock lock(m_mutex);
        connected = m_Bus.NameHasOwner(m_pConnection, m_strService.c_str());
    }
    TY_LOG_DEBUG_AT("IsConnected", 62, "IsConnected returns %d", connected ? 1 : 0);
    return connected;
}

bool CDbusClient::SetTimeoutMs(int timeoutMs) {
    if (timeoutMs < 1 && timeoutMs != DBUS_TIMEOUT_USE_DEFAULT) {
        return false;
    }
    m_nTimeoutMs = timeoutMs;
    return true;
}

void CDbusClient::LimitCallsToCome(std::chrono::milliseconds together) {
    m_LimitBegin = m_Clock.SteadyNow();
    m_Limit = together;
    m_bLimited = true;
}

int CDbusClient::TimeForCallMs() {
    const int timeoutMs = m_nTimeoutMs;
    if (!m_bLimited) {
        return timeoutMs;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(m_Limit - m_TimeInCalls).count();
    const auto leftMs = static_cast<int>(std::max<decltype(left)>(left, 0));
    return timeoutMs == DBUS_TIMEOUT_USE_DEFAULT ? leftMs : std::min(timeoutMs, leftMs);
}

void CDbusClient::CountTimeSince(ITYClock::TimePoint begin) {
    if (m_bLimited) {
        m_TimeInCalls += m_Clock.SteadyNow() - std::max(begin, m_LimitBegin);
    }
}

bool CDbusClient::SendMessage(std::string function, std::vector<CDbusValue>& arguments,
                              std::vector<CDbusValue>& reply) {
    TY_LOG_DEBUG_AT("SendMessage", 84, "> path = [%s], method = [%s]", m_strPath.c_str(),
                    m_strMethod.c_str());
    CTYLock lock(m_mutex);
    // libdbus ends the process of who hands it no connection. Whoever polls IsConnected is told
    // there once a second, so that this line is for debugging only.
    if (!m_bReady) {
        TY_LOG_DEBUG("no connection, [%s] is not called", function.c_str());
        return false;
    }
    const int timeMs = TimeForCallMs();
    if (timeMs == 0) {
        TY_LOG_ERROR("no time is left, [%s] is not called", function.c_str());
        return false;
    }
    const TYMessagePtr request = MakeRequest(std::move(function), arguments);
    if (request == nullptr) {
        return false;
    }
    const TYMessagePtr answer = Call(request.get(), timeMs);
    if (answer == nullptr) {
        TY_LOG_ERROR_AT("SendMessage", 119, "REPLY IS NULL!");
        return false;
    }
    MessageToList(answer.get(), reply);
    return TakeStatus(reply);
}

TYMessagePtr CDbusClient::MakeRequest(std::string function, std::vector<CDbusValue>& arguments) {
    TYMessagePtr request(m_Bus.NewMethodCall(m_strService.c_str(), m_strPath.c_str(),
                                             m_strInterface.c_str(), m_strMethod.c_str()));
    if (request == nullptr) {
        TY_LOG_ERROR("no memory for a message, [%s] is not called", function.c_str());
        return nullptr;
    }
    CDbusValue name = CDbusValue::OfString(std::move(function));
    TY_LOG_DEBUG_AT("SendMessage", 95, "Make Message for method [%s] to [%s]",
                    name.strValue.c_str(), m_strService.c_str());
    const int first = ValueToMessage(request.get(), 0, name);
    const int next = ListToMessage(request.get(), first, arguments);
    const bool complete = first == 1 && static_cast<std::size_t>(next - first) == arguments.size();
    return complete ? std::move(request) : nullptr;
}

TYMessagePtr CDbusClient::Call(DBusMessage* pRequest, int timeMs) {
    CTYDbusError error;
    TY_LOG_DEBUG_AT("SendMessage", 108, "send");
    const ITYClock::TimePoint begin = m_Clock.SteadyNow();
    TYMessagePtr answer(m_Bus.SendWithReplyAndBlock(m_pConnection, pRequest, timeMs, error.Get()));
    if (answer == nullptr) {
        CountTimeSince(begin);
    }
    if (error.IsSet()) {
        TY_LOG_ERROR_AT("SendMessage", 112, "CLIENT > Dbus error: %s", error.Message());
    }
    return answer;
}

bool CDbusClient::TakeStatus(std::vector<CDbusValue>& reply) {
    if (reply.empty()) {
        TY_LOG_ERROR_AT("SendMessage", 128, "response empty");
        return false;
    }
    if (reply.front().type != DBUS_VALUE_INT) {
        TY_LOG_ERROR_AT("SendMessage", 134, "no api return value");
        return false;
    }
    const bool success = reply.front().nValue != 0;
    reply.erase(reply.begin());
    return success;
}
