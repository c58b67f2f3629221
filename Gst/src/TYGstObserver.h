// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_GST_TYGSTOBSERVER_H
#define TALLYRA_GST_TYGSTOBSERVER_H

#include "PerProcess.h"
#include "TYEventQueue.h"
#include "TYGstEvent.h"
#include "TYPipelineWatch.h"
#include "TYPlaybackMapper.h"

#include <gst/gst.h>
#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

/// Observes one pipeline, on a thread of its own.
///
/// The thread makes the collector, because that may block, and makes all reports. It ends when the
/// observer is detached or the pipeline is disposed, and deletes the collector.
///
/// Threads: one calls Start, and later one Detach. Any may call Describe and HasEnded.
class CTYGstObserver {
  public:
    CTYGstObserver(GstElement* pPipeline, std::string application, int player);
    ~CTYGstObserver() = default;
    CTYGstObserver(const CTYGstObserver&) = delete;
    CTYGstObserver& operator=(const CTYGstObserver&) = delete;

    /// Connects to the pipeline and starts the thread.
    /// @return whether the thread runs; if not, the observer does nothing. One observer at most
    ///   watches a pipeline, and one without a bus cannot be watched.
    /// @throws std::bad_alloc  the observer may then only be deleted
    bool Start(GstElement* pPipeline);
    /// Hands over a description of content.
    /// @param describe  makes the TYDescription
    template <class Describer>
    void Describe(const Describer& describe) {
        m_pQueue->Handle([&] { m_pQueue->Push(describe()); });
    }
    /// Begins to end the playback in progress. Does not block; Detach must follow.
    void BeginDetach();
    /// How long Detach waits; the collector's destructor needs up to 4 s of it.
    static constexpr std::chrono::milliseconds kLongestDetach{10'000};

    /// Ends the playback in progress and the thread, and deletes the observer.
    ///
    /// Blocks until then, but not for ever: the thread may wait for the pipeline, which may wait
    /// for the application. It does not block on the observer's own thread, which may release the
    /// last reference to the pipeline. In both cases, the thread deletes the observer.
    static void Detach(std::unique_ptr<CTYGstObserver> pObserver,
                       std::chrono::milliseconds longest = kLongestDetach);

    /// @return whether the thread has nothing more to do, so that Detach does not block
    bool HasEnded();
    /// @return false in a forked child, where the thread does not exist
    bool IsOfThisProcess() const { return m_Process.IsCurrent(); }

  private:
    static void* Body(void* pSelf);
    void Report();
    void Run(ITYDataCollector& collector);
    void Take(CTYPlaybackMapper& mapper, TYGstEvent event);
    void Look(CTYPlaybackMapper& mapper);
    std::int64_t NextLook(const CTYPlaybackMapper& mapper) const;

    // Set once.
    const CProcessId m_Process{};
    const std::string m_strApplication;
    const int m_nPlayer;
    const std::shared_ptr<CTYEventQueue> m_pQueue;
    pthread_t m_Thread{};

    CTYPipelineWatch m_Watch;

    // The observer's thread only.
    bool m_bClosed = false;
    bool m_bPlaying = false;
    bool m_bSourceKnown = false;
    bool m_bNextAnnounced = false;
    std::int64_t m_nLooked = 0;
    std::int64_t m_nAsked = 0;

    std::mutex m_EndMutex;
    std::condition_variable m_End;
    // Guarded by m_EndMutex.
    bool m_bEnded = false;
    bool m_bLeft = false;  ///< whether the thread deletes the observer
};

#endif  // TALLYRA_GST_TYGSTOBSERVER_H
