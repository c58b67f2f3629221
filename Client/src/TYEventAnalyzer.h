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

/// Reads the stream of records on a thread of its own, derives further ones (play time since the
/// last position anchor, time to the first frame, length of a stall, stalls that do not pair) and
/// passes all on to the sender, each derived one right behind the record it comes from.
///
/// Life: Initthread, Start, RequestTerminate; not restartable, see CTYWorker.
///
/// Threads: players call InsertData and WakeUpThread. The analyzer's thread alone calls
/// AnalyzeEvent and what that calls, so the analysis state has no lock. The input queue has its
/// own; the worker's locks are CTYWorker's. The waker's sleeper apart, none is taken while another
/// is held.
class CTYEventAnalyzer {
  public:
    explicit CTYEventAnalyzer(ITYClock& clock = SystemClock());
    ~CTYEventAnalyzer();
    CTYEventAnalyzer(const CTYEventAnalyzer&) = delete;
    CTYEventAnalyzer& operator=(const CTYEventAnalyzer&) = delete;

    /// Sets where records go on to. Called once, before Start. The sender is not owned and has to
    /// outlive the thread.
    void Initthread(CTYDataSender* pSender);

    /// Starts the thread; a second call while it runs logs an error line and changes nothing.
    /// @return whether a thread runs now
    bool Start();

    /// Returns when everything that was queued is analysed and passed on, and the thread is gone.
    void RequestTerminate();

    /// Queues a record and takes it over. Does not wake the thread.
    /// @return false for a record that was freed: no thread runs, and enough wait for one
    bool InsertData(TYMediaRecord* pRecord);

    /// Has the thread look into its queue. Takes no lock.
    void WakeUpThread() noexcept;

    /// Takes one record from the queue, passes it on and derives from it.
    void AnalyzeEvent();

    /// Passes a record on to the sender, which takes it over. Without a sender nothing happens, and
    /// the record stays the caller's.
    void InsertDataAtIPCQueue(TYMediaRecord* pRecord);

    /// @return a new record, the caller's, that differs from `pSource` in its event code and its
    ///         time, which is now; the two share the URL, which outlives either
    TYMediaRecord* CopyData(const TYMediaRecord* pSource, unsigned char event);

    /// Writes the main fields of a record to the log, seven lines at debug priority.
    static void PrintData(const TYMediaRecord* pRecord);

    /// @return milliseconds from `start` to `end`, cut, not rounded; negative when `end` is earlier
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

    // The analyzer's thread only.
    bool m_bIntervalOpen = false;
    std::int32_t m_nBasePosition = 0;
    TYTime m_tIntervalStart{};
    TYTime m_tStartTime{};

    // Set by the first player's thread that loses a record.
    CTYAtomic<bool> m_bDropTold{false};

    CTYWorker m_Worker;
};

#endif  // TALLYRA_TYEVENTANALYZER_H
