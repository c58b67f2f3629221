// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYSERVICEPROXY_H
#define TALLYRA_TYSERVICEPROXY_H

#include "ITYService.h"
#include "TYDbusClient.h"

#include <string>
#include <vector>

/// The library's side of the collection service: each operation is one call over the bus.
///
/// Life: connects once, when constructed; without a connection all its calls fail.
///
/// Threads: any; calls wait for one another, each for at most its reply timeout.
class CTYServiceProxy : public ITYService {
  public:
    explicit CTYServiceProxy(ITYBus& bus = SystemBus(), ITYClock& clock = SystemClock());

    bool SendData(std::vector<TYMediaData>& records, std::vector<std::string>& urls) override;
    bool GetPolicyInfo(std::string& name, int* pPolicy) override;

    /// Nudges the service. Sets the reply timeout to 200 ms and leaves it there.
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
