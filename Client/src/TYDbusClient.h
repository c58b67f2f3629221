// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYDBUSCLIENT_H
#define TALLYRA_TYDBUSCLIENT_H

#include "ITYBus.h"
#include "ITYClock.h"
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
    CDbusClient(const char* pInterface, const char* pService, ITYBus& bus = SystemBus(),
                ITYClock& clock = SystemClock());
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

    /// Gives all calls one time limit for waiting in vain together, beside that of each: what is
    /// left of one under way counts; one that is answered, and what happens between calls, does
    /// not. A call that finds no time left is not made and fails. To be called once, by the owner.
    void LimitCallsToCome(std::chrono::milliseconds together);

  private:
    TYMessagePtr MakeRequest(std::string function, std::vector<CDbusValue>& arguments)
        TY_REQUIRES(m_mutex);
    TYMessagePtr Call(DBusMessage* pRequest, int timeMs) TY_REQUIRES(m_mutex);
    int TimeForCallMs() TY_REQUIRES(m_mutex);
    void CountTimeSince(ITYClock::TimePoint begin) TY_REQUIRES(m_mutex);
    static bool TakeStatus(std::vector<CDbusValue>& reply);

    std::string m_strInterface;
    std::string m_strService;
    std::string m_strPath;
    std::string m_strMethod;
    CTYAtomic<bool> m_bReady{false};
    CTYAtomic<std::int32_t> m_nTimeoutMs{3000};
    CTYRecursiveMutex m_mutex;
    ITYBus& m_Bus;
    ITYClock& m_Clock;

    // Both are set once, before the flag that says so.
    ITYClock::TimePoint m_LimitBegin;
    std::chrono::nanoseconds m_Limit{};
    CTYAtomic<bool> m_bLimited{false};
    std::chrono::nanoseconds m_TimeInCalls TY_GUARDED_BY(m_mutex){};
};

#endif  // TALLYRA_TYDBUSCLIENT_H
