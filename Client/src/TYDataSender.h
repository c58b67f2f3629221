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

/// Queues finished records and delivers them in batches to the collection service. Two helpers
/// belong to it: a timer that wakes its thread, and a check that waits for the service to appear.
///
/// Life: construction opens the bus connection. SetServiceConnectionCallback starts the wait for
/// the service, Start the delivery; RequestTerminate delivers what is queued and ends it. Not
/// restartable, see CTYWorker.
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

    /// Returns when everything queued has been handed to the proxy and the thread is gone.
    void RequestTerminate();

    /// From here on the first call that gets no reply is the last one made; see
    /// CDbusClient::BeginShutdown. What is queued then is dropped.
    void BeginShutdown();

    /// Queues a record and takes it over. Wakes the thread at the tenth waiting record, and when
    /// the play time that follows a STOP has come.
    void InsertData(TYMediaRecord* pRecord);

    /// Has the thread look into its queue. Takes no lock.
    void WakeUpThread() noexcept;

    /// @return the number of records that wait
    int GetQueueSize() const;

    /// Sends one batch: all records queued when the call counts them, in as many calls of the
    /// service as they take. When a call fails, its records and the rest of the batch are lost.
    /// @return what the proxy returned last; 0 also when there was nothing to send
    int SendData();

    /// Drops and frees every record that waits.
    void ClearCollectedData();

    /// Asks the service whether `appID` may be collected.
    /// @param pInfo  filled with the policy; 0 on failure
    /// @return non-zero when the service answered
    int GetPolicyInfo(std::string& appID, int* pInfo);

    /// Waits for the service, on another thread; see CTYConnectionCheck. A second call ends the
    /// wait of the first.
    /// @param callback  called once: with true when the service answers, else with false
    void SetServiceConnectionCallback(std::function<void(bool)> callback);

    /// Ends the wait for the service. Returns when its thread, the callback included, is done.
    void StopConnectionCheck();

    /// Has the host's GLib main loop wake the thread every `period` milliseconds. Does nothing when
    /// a timer is registered already.
    void RegisterTimer(int period);
    /// Removes the timer. Returns when none of its callbacks runs.
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
