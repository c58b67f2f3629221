// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYEVENTANALYZER_H
#define TALLYRA_TYEVENTANALYZER_H

#include "ITYClock.h"
#include "TYMediaData.h"
#include "TYWorker.h"
#include "ThreadSafeQueue.h"

#include <memory>

class CTYDataSender;

/// Takes records from its queue on its own thread and derives further ones: play time since the
/// base position, time to the first frame, length of a stall, and a mismatch of a stall's start and
/// end. Passes all records to the sender, each derived record directly after its source.
///
/// Life: Initthread, Start, RequestTerminate; cannot be restarted, see CTYWorker.
///
/// Threads: players call InsertData and WakeUpThread. Only the analyzer's thread calls AnalyzeEvent
/// and the functions below it, so the analysis state needs no lock. The input queue has its own
/// lock, CTYWorker has the others. No lock is taken while another is held, except the waker's
/// sleeper.
class CTYEventAnalyzer {
  public:
    explicit CTYEventAnalyzer(ITYClock& clock = SystemClock());
    ~CTYEventAnalyzer();
    CTYEventAnalyzer(const CTYEventAnalyzer&) = delete;
    CTYEventAnalyzer& operator=(const CTYEventAnalyzer&) = delete;

    /// Sets the sender that receives the records. Call once, before Start. The sender is not owned
    /// and must outlive the thread.
    void Initthread(CTYDataSender* pSender);

    /// Starts the thread; a second call while it runs logs an error line and changes nothing.
    /// @return false when no thread could be started
    bool Start();

    /// Analyses and passes on all queued records, then joins the thread.
    void RequestTerminate();

    /// Queues a record and takes ownership of it. Does not wake the thread.
    /// @return false if no thread runs and TYLimits::kMaxWaitingRecords wait; the record is then
    ///         freed
    bool InsertData(TYMediaRecord* pRecord);

    /// Wakes the thread if it sleeps. Takes no lock.
    void WakeUpThread() noexcept;

    /// Takes one record from the queue, passes it to the sender and derives from it.
    void AnalyzeEvent();

    /// Logs a record and passes it to the sender, which takes ownership. Without a sender the call
    /// does nothing, and the caller keeps the record.
    void InsertDataAtIPCQueue(TYMediaRecord* pRecord);

    /// Copies a record with another event code and the current time. Both share the URL.
    /// @return the copy, which the caller owns
    TYMediaRecord* CopyData(const TYMediaRecord* pSource, unsigned char event);

    /// Logs the main fields of a record, seven lines at debug priority.
    static void PrintData(const TYMediaRecord* pRecord);

    /// @return milliseconds from `start` to `end`, truncated; negative when `end` is earlier
    static int GetTimeDiffInMS(TYTime start, TYTime end);

  private:
    static constexpr std::int32_t kUnknownPosition = -1;

    void Analyze(const TYMediaRecord& record);
    void DerivePlayingTime(const TYMediaRecord& record, std::int32_t base);
    void DeriveStartUpTime(const TYMediaRecord& record);
    void DeriveMismatch(const TYMediaRecord& record);
    void OpenInterval(const TYMediaRecord& record);
    void CloseInterval(const TYMediaRecord& record);
    void PassOnDerived(std::unique_ptr<TYMediaRecord> derived);
    TYTime Now();

    CThreadSafeQueue<TYMediaRecord*> m_Queue;
    CTYDataSender* m_pSender = nullptr;
    ITYClock& m_Clock;

    // Used by the analyzer's thread only.
    bool m_bIntervalOpen = false;
    std::int32_t m_nBasePosition = 0;
    TYTime m_tIntervalStart{};
    TYTime m_tStartTime{};

    // Set by the first player thread whose record is dropped.
    CTYAtomic<bool> m_bDropLogged{false};

    CTYWorker m_Worker;
};

#endif  // TALLYRA_TYEVENTANALYZER_H
