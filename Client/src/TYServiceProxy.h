// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYSERVICEPROXY_H
#define TALLYRA_TYSERVICEPROXY_H

#include "ITYService.h"
#include "TYDbusClient.h"

#include <string>
#include <vector>

/// Calls the collection service: each operation is one call over the bus.
///
/// Life: the constructor connects once; without a connection all calls fail.
///
/// Threads: any; calls wait for one another, and each takes at most its reply timeout.
class CTYServiceProxy : public ITYService {
  public:
    explicit CTYServiceProxy(ITYBus& bus = SystemBus(), ITYClock& clock = SystemClock());

    bool SendData(std::vector<TYMediaData>& records, std::vector<std::string>& urls) override;
    bool GetPolicyInfo(std::string& name, int* pPolicy) override;

    /// Calls the service's Kick, which makes the bus start a service that it can activate. Sets the
    /// reply timeout to 200 ms, also for later calls.
    /// @return whether the service answered with a non-zero status
    bool Kick();

    /// See CDbusClient::SetTimeoutMs.
    bool SetTimeoutMs(int timeoutMs);

    /// See CDbusClient::BeginShutdown.
    void BeginShutdown();

    /// See CDbusClient::IsConnected.
    bool IsConnected();

  private:
    struct ReplySite;
    bool CallForInt(const char* pFunction, std::vector<CDbusValue>& arguments,
                    const ReplySite& site, int* pResult);

    CDbusClient m_Client;
};

#endif  // TALLYRA_TYSERVICEPROXY_H
