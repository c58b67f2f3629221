// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYDATASENDER_H
#define TALLYRA_TYDATASENDER_H

#include "ITYBus.h"
#include "ITYClock.h"
#include "TYConnectionCheck.h"
#include "TYMediaData.h"
#include "TYSendTimer.h"
#include "TYServiceProxy.h"
#include "TYWorker.h"
#include "ThreadSafeQueue.h"

#include <functional>
#include <memory>
#include <string>

/// Queues finished records and delivers them in batches to the collection service. Owns two
/// helpers: a timer that wakes its thread, and a check that waits until the service is on the bus.
///
/// Life: the constructor opens the bus connection. SetServiceConnectionCallback starts the wait for
/// the service. Start starts the delivery; RequestTerminate delivers the queued records and ends
/// it. A sender cannot be restarted, see CTYWorker.
///
/// Threads: the analyzer's thread calls InsertData; the sender's thread SendData; the connection
/// check GetQueueSize and ClearCollectedData; the host's main loop DataSendTimerCallback; the
/// collector the rest, from any thread. The queue, the worker, the check's sleeper and the timer's
/// gate each have their own lock. Only the worker's sleeper is locked while another is held.
class CTYDataSender {
  public:
    explicit CTYDataSender(ITYBus& bus = SystemBus(), ITYClock& clock = SystemClock());
    ~CTYDataSender();
    CTYDataSender(const CTYDataSender&) = delete;
    CTYDataSender& operator=(const CTYDataSender&) = delete;

    /// Registers the send timer and starts the thread; a second call while it runs logs an error
    /// line and changes nothing.
    /// @return whether a thread runs now
    bool Start();

    /// Passes all queued records to the proxy, then joins the thread.
    void RequestTerminate();

    /// From here on, the first call that gets no reply is the last one made; see
    /// CDbusClient::BeginShutdown. Records that are still queued then are dropped.
    void BeginShutdown();

    /// Queues a record and takes ownership of it. Wakes the thread if ten or more records wait, and
    /// when the record is the play time that follows a STOP.
    void InsertData(TYMediaRecord* pRecord);

    /// Wakes the thread if it sleeps. Takes no lock.
    void WakeUpThread() noexcept;

    /// @return the number of records that wait
    int GetQueueSize() const;

    /// Sends one batch: all records that are queued when the function counts them, in as many calls
    /// of the service as necessary. If a call fails, its records and all later ones are lost.
    /// @return 1 if the service accepted every call; 0 if a call failed or the queue was empty
    int SendData();

    /// Drops and frees all queued records.
    void ClearCollectedData();

    /// Asks the service for the policy of the application `appID`.
    /// @param pInfo  receives the policy, 0 if the service refuses collection; 0 on failure
    /// @return non-zero if the service sent a policy
    int GetPolicyInfo(std::string& appID, int* pInfo);

    /// Starts to wait for the service, on another thread; see CTYConnectionCheck. A second call
    /// ends the wait of the first.
    /// @param callback  called once: with true when the service owns its name, otherwise with false
    void SetServiceConnectionCallback(std::function<void(bool)> callback);

    /// Ends the wait for the service. Blocks until its thread has ended, and with it the callback.
    void StopConnectionCheck();

    /// Makes the host's GLib main loop wake the thread every `period` milliseconds. Does nothing if
    /// a timer is registered already.
    void RegisterTimer(int period);
    /// Removes the timer. Blocks while its callback runs.
    void UnRegisterTimer();

    /// The timer's callback: wakes the thread when records wait.
    /// @param pSender  the sender
    /// @return 1, which keeps the timer
    static int DataSendTimerCallback(void* pSender);

  private:
    CThreadSafeQueue<TYMediaRecord*> m_Queue;
    std::unique_ptr<CTYServiceProxy> m_pProxy;
    CTYSendTimer m_Timer{&DataSendTimerCallback, this};
    CTYConnectionCheck m_ConnectionCheck;
    // The analyzer's thread only.
    bool m_bStopEventQueued = false;
    CTYWorker m_Worker;
};

#endif  // TALLYRA_TYDATASENDER_H
