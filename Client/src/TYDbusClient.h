// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYDBUSCLIENT_H
#define TALLYRA_TYDBUSCLIENT_H

#include "ITYBus.h"
#include "TYAtomic.h"
#include "TYBusConnection.h"
#include "TYDbusPort.h"
#include "TYLimits.h"
#include "TYMessagePtr.h"
#include "TYMutex.h"

#include <string>
#include <vector>

/// A private connection to the system bus, and blocking calls of the service's one method over it.
///
/// Life: the constructor connects once. A client whose connection failed or broke never connects
/// again.
///
/// Threads: any; calls wait for one another. The recursive mutex is held through a whole call,
/// including the decoding of the reply. The timeout and the readiness are read without it.
class CDbusClient : public CDbusPort {
  public:
    /// Connects to the system bus.
    /// @param pInterface  the interface that every call names
    /// @param pService    the bus name that every call goes to
    CDbusClient(const char* pInterface, const char* pService, ITYBus& bus = SystemBus(),
                ITYClock& clock = SystemClock());
    /// Closes the connection. libdbus keeps the closed connection's memory.
    ~CDbusClient() override;

    /// Same as IsConnected.
    bool IsReady() override;

    /// @return whether there is a connection and the service owns its name
    bool IsConnected();

    /// Calls a function of the service and waits for its reply.
    /// @param reply  receives the values after the status of the reply; all values if the reply
    ///               does not begin with a status
    /// @return whether the service answered with a non-zero status
    bool SendMessage(std::string function, std::vector<CDbusValue>& arguments,
                     std::vector<CDbusValue>& reply);

    /// Sets how long SendMessage waits for its reply.
    /// @param timeoutMs  milliseconds, from 1; or -1 for the default of libdbus
    /// @return false for any other value, which changes nothing
    bool SetTimeoutMs(int timeoutMs);

    /// From here on, the first call that times out is the last one made, even if it is already
    /// under way: all later calls fail at once. A silent service therefore delays the owner's
    /// shutdown by one reply timeout. A service that answers, however slowly, receives every call.
    void BeginShutdown();

  private:
    TYMessagePtr MakeRequest(std::string function, std::vector<CDbusValue>& arguments)
        TY_REQUIRES(m_mutex);
    TYMessagePtr Call(DBusMessage* pRequest) TY_REQUIRES(m_mutex);
    static bool TakeStatus(std::vector<CDbusValue>& reply);

    std::string m_strInterface;
    std::string m_strService;
    std::string m_strPath;
    std::string m_strMethod;
    CTYAtomic<bool> m_bReady{false};
    CTYAtomic<std::int32_t> m_nTimeoutMs{TYLimits::kReplyTimeoutMs};
    CTYRecursiveMutex m_mutex;
    CTYBusConnection m_Connection;
    CTYAtomic<bool> m_bShutdown{false};
    bool m_bUnanswered TY_GUARDED_BY(m_mutex) = false;
};

#endif  // TALLYRA_TYDBUSCLIENT_H
