// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYServiceProxy.h"

#include "TYBusNames.h"
#include "TYLog.h"

#define TY_LOG_TAG TY_TAG

namespace {

constexpr int kKickTimeoutMs = 200;

}  // namespace

/// The function names and line numbers that the log lines about a reply carry.
struct CTYServiceProxy::ReplySite {
    const char* pFunction;
    const char* pFailure;
    int failureLine;
    int formatLine;
    int typeLine;
};

CTYServiceProxy::CTYServiceProxy(ITYBus& bus, ITYClock& clock)
    : m_Client(TYBusNames::kInterface, TYBusNames::kService, bus, clock) {}

bool CTYServiceProxy::SendData(std::vector<TYMediaData>& records, std::vector<std::string>& urls) {
    static constexpr ReplySite site = {"SendData", "fail to send data[dbus fail]", 73, 78, 83};
    std::vector<CDbusValue> arguments;
    arguments.reserve(records.size() + urls.size());
    for (const TYMediaData& record : records) {
        arguments.push_back(
            CDbusValue::OfBinary(reinterpret_cast<const char*>(&record), sizeof(record)));
    }
    for (const std::string& url : urls) {
        arguments.push_back(CDbusValue::OfString(url));
    }
    int accepted = 0;
    return CallForInt("SendData", arguments, site, &accepted) && accepted != 0;
}

bool CTYServiceProxy::GetPolicyInfo(std::string& name, int* pPolicy) {
    static constexpr ReplySite site = {"GetPolicyInfo", "fail to get policy[dbus fail]", 114, 119,
                                       124};
    std::vector<CDbusValue> arguments{CDbusValue::OfString(name)};
    TY_LOG_DEBUG_AT("GetPolicyInfo", 110, "Get policy of %s", name.c_str());
    return CallForInt("GetPolicyInfo", arguments, site, pPolicy);
}

bool CTYServiceProxy::CallForInt(const char* pFunction, std::vector<CDbusValue>& arguments,
                                 const ReplySite& site, int* pResult) {
    std::vector<CDbusValue> reply;
    *pResult = 0;
    if (!m_Client.SendMessage(pFunction, arguments, reply)) {
        TY_LOG_ERROR_AT(site.pFunction, site.failureLine, "%s", site.pFailure);
        return false;
    }
    if (reply.size() != 1) {
        TY_LOG_ERROR_AT(site.pFunction, site.formatLine, "Invalid response format");
        return false;
    }
    if (reply.front().type != DBUS_VALUE_INT) {
        TY_LOG_ERROR_AT(site.pFunction, site.typeLine, "Invalid response type");
        return false;
    }
    *pResult = reply.front().nValue;
    return true;
}

bool CTYServiceProxy::Kick() {
    TY_LOG_INFO_AT("Kick", 19, "KICK");
    m_Client.SetTimeoutMs(kKickTimeoutMs);
    std::vector<CDbusValue> arguments{CDbusValue::OfString("Kick")};
    std::vector<CDbusValue> reply;
    return m_Client.SendMessage("Kick", arguments, reply);
}

bool CTYServiceProxy::SetTimeoutMs(int timeoutMs) {
    return m_Client.SetTimeoutMs(timeoutMs);
}

void CTYServiceProxy::BeginShutdown() {
    m_Client.BeginShutdown();
}

bool CTYServiceProxy::IsConnected() {
    return m_Client.IsConnected();
}
