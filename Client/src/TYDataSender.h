// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYDATASENDER_H
#define TALLYRA_TYDATASENDER_H

#include "ITYBus.h"
#include "ITYClock.h"
#include "TYAtomic.h"
#include "TYCallbackGate.h"
#include "TYMediaData.h"
#include "TYServiceProxy.h"
#include "TYSleeper.h"
#include "TYThread.h"
#include "TYWorker.h"
#include "ThreadSafeQueue.h"

#include <functional>
#include <memory>
#include <string>

/// Collects finished records and delivers them in batches to the collection service; and waits, on
/// a thread of its own, for that service to appear in the first place.
///
/// Life: construction opens the bus connection. SetServiceConnectionCallback starts the wait for
/// the service, Start the delivery; RequestTerminate delivers what is queued and ends it. Not
/// restartable, see CTYWorker.
///
/// Threads: the analyzer's thread calls InsertData; the sender's thread SendData; the connection
/// check GetQueueSize and ClearCollectedData; the host's main loop DataSendTimerCallback; the
/// collector the rest, from any thread. The queue, the worker, the sleeper and the timer's gate
/// each have their own lock; the waker's sleeper apart, none is taken while another is held.
class CTYDataSender {
  public:
    /// Records that may wait for a service that does not appear.
    static constexpr int kMaxWaitingRecords = 200;

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

    /// Starts to wait for the service. `callback` is called once, on another thread: with true when
    /// the service answers; with false when more than kMaxWaitingRecords pile up first, or when
    /// the sender is destroyed.
    void SetServiceConnectionCallback(std::function<void(bool)> callback);

    /// Has the wait for the service end, and returns when its thread, the callback included, is
    /// done.
    void StopConnectionCheck();

    /// Has the host's GLib main loop wake the thread every `period` milliseconds. Does nothing when
    /// a timer is registered already.
    void RegisterTimer(int period);
    /// Returns when the timer is gone and none of its callbacks runs.
    void UnRegisterTimer();

    /// The timer's callback.
    /// @param pSender  the sender
    /// @return 1: the timer stays
    static int DataSendTimerCallback(void* pSender);

  private:
    struct TimerLink;

    static int OnTimer(void* pLink);
    static void FreeTimerLink(void* pLink);
    void CheckConnection();
    void ReportNoService();
    bool AwaitService();
    bool GiveUpWaiting();

    CThreadSafeQueue<TYMediaRecord*> m_Queue;
    std::unique_ptr<CTYServiceProxy> m_pProxy;

    // Touched by whoever starts the sender, and by its destructor.
    CTYAtomic<unsigned int> m_nTimerId{0};
    std::shared_ptr<TimerLink> m_pTimerLink;

    // The thread is the collector's to start and to join; the callback is set before it runs, and
    // the flag is for all.
    CTYThread m_ConnectionThread;
    std::function<void(bool)> m_ConnectionCallback;
    CTYSleeper m_ConnectionSleeper;
    CTYAtomic<bool> m_bStopConnectionCheck{false};

    // The analyzer's thread only.
    bool m_bStopEventQueued = false;

    CTYWorker m_Worker;
};

#endif  // TALLYRA_TYDATASENDER_H
