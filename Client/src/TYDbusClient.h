// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYDBUSCLIENT_H
#define TALLYRA_TYDBUSCLIENT_H

#include "ITYBus.h"
#include "TYAtomic.h"
#include "TYDbusPort.h"
#include "TYMessagePtr.h"
#include "TYMutex.h"

#include <string>
#include <vector>

/// A private connection to the system bus, and blocking calls of the service's one method over it.
///
/// Life: ready, or not, from construction to destruction. A client whose connection failed or broke
/// stays without one.
///
/// Threads: calls from several threads wait for one another. The recursive mutex is held through a
/// whole call, the reply's decoding included; the timeout and the readiness are plain readings.
class CDbusClient : public CDbusPort {
  public:
    /// Connects to the system bus.
    /// @param pInterface  the interface that every call names
    /// @param pService    the bus name that every call goes to
    CDbusClient(const char* pInterface, const char* pService, ITYBus& bus = SystemBus());
    /// Closes the connection. libdbus keeps the closed connection's memory.
    ~CDbusClient() override;

    /// IsConnected.
    bool IsReady() override;

    /// @return whether there is a connection and the service owns its name
    bool IsConnected();

    /// Calls a function of the service and waits for its reply.
    /// @param reply  gets the values behind the status of the reply; when the reply does not begin
    ///               with a status, all of its values
    /// @return whether the service answered with a non-zero status
    bool SendMessage(std::string function, std::vector<CDbusValue>& arguments,
                     std::vector<CDbusValue>& reply);

    /// @param timeoutMs  how long SendMessage waits, in milliseconds, from 1; or -1, the default of
    ///                   libdbus. Anything else is refused.
    /// @return whether the value was taken
    bool SetTimeoutMs(int timeoutMs);

    /// From here on the first call that gets no reply, also one already under way, is the last one
    /// made: all later calls fail at once. A silent service so costs its owner's shutdown one reply
    /// timeout; a service that answers, however slowly, gets everything.
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
    CTYAtomic<std::int32_t> m_nTimeoutMs{3000};
    CTYRecursiveMutex m_mutex;
    ITYBus& m_Bus;
    CTYAtomic<bool> m_bShutdown{false};
    bool m_bUnanswered TY_GUARDED_BY(m_mutex) = false;
};

#endif  // TALLYRA_TYDBUSCLIENT_H
