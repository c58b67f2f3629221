// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYDbusClient.h"

#include "TYBusNames.h"
#include "TYDbusError.h"
#include "TYLog.h"

#include <utility>

#define TY_LOG_TAG TY_TAG

CDbusClient::CDbusClient(const char* pInterface, const char* pService, ITYBus& bus, ITYClock& clock)
    : m_Connection(bus, clock) {
    bus.InitThreads();
    CTYDbusError error;
    m_pConnection = m_Connection.Open(error.Get());
    if (error.IsSet()) {
        TY_LOG_ERROR_AT("CDbusClient", 25, "Dbus connection failed: %s", error.Message());
        return;
    }
    TY_LOG_INFO_AT("CDbusClient", 29, "hello> Dbus session [%s] -> [%s]", pInterface, pService);
    m_strInterface = pInterface;
    m_strService = pService;
    m_bReady = m_pConnection != nullptr;
    m_strPath = TYBusNames::kPath;
    m_strMethod = TYBusNames::kMethod;
}

CDbusClient::~CDbusClient() {
    TY_LOG_INFO_AT("~CDbusClient", 45, "bye> terminal dbus client");
    if (m_pConnection != nullptr) {
        m_Connection.Close();
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
        connected = m_Connection.NameHasOwner(m_strService.c_str());
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

void CDbusClient::BeginShutdown() {
    m_bShutdown = true;
}

bool CDbusClient::SendMessage(std::string function, std::vector<CDbusValue>& arguments,
                              std::vector<CDbusValue>& reply) {
    TY_LOG_DEBUG_AT("SendMessage", 84, "> path = [%s], method = [%s]", m_strPath.c_str(),
                    m_strMethod.c_str());
    CTYLock lock(m_mutex);
    // libdbus aborts on a null connection. Only a debug line, because IsConnected already logs the
    // error once a second.
    if (!m_bReady) {
        TY_LOG_DEBUG("no connection, [%s] is not called", function.c_str());
        return false;
    }
    if (m_bUnanswered) {
        TY_LOG_ERROR("shutting down without a reply, [%s] is not called", function.c_str());
        return false;
    }
    const TYMessagePtr request = MakeRequest(std::move(function), arguments);
    if (request == nullptr) {
        return false;
    }
    const TYMessagePtr answer = Call(request.get());
    if (answer == nullptr) {
        TY_LOG_ERROR_AT("SendMessage", 119, "REPLY IS NULL!");
        return false;
    }
    MessageToList(answer.get(), reply);
    return TakeStatus(reply);
}

TYMessagePtr CDbusClient::MakeRequest(std::string function, std::vector<CDbusValue>& arguments) {
    TYMessagePtr request = m_Connection.NewMethodCall(m_strService.c_str(), m_strPath.c_str(),
                                                      m_strInterface.c_str(), m_strMethod.c_str());
    if (request == nullptr) {
        TY_LOG_ERROR("no memory for a message, [%s] is not called", function.c_str());
        return nullptr;
    }
    CDbusValue name = CDbusValue::OfString(std::move(function));
    TY_LOG_DEBUG_AT("SendMessage", 95, "Make Message for method [%s] to [%s]",
                    name.strValue.c_str(), m_strService.c_str());
    const int first = ValueToMessage(request.get(), 0, name);
    const int next = ListToMessage(request.get(), first, arguments);
    if (first != 1 || static_cast<std::size_t>(next - first) != arguments.size()) {
        return nullptr;
    }
    return request;
}

TYMessagePtr CDbusClient::Call(DBusMessage* pRequest) {
    CTYDbusError error;
    TY_LOG_DEBUG_AT("SendMessage", 108, "send");
    TYMessagePtr answer = m_Connection.Call(pRequest, m_nTimeoutMs, error.Get());
    m_bUnanswered = m_bShutdown && error.Is(DBUS_ERROR_NO_REPLY);
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
