// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_GST_TYPIPELINEWATCH_H
#define TALLYRA_GST_TYPIPELINEWATCH_H

#include "TYBusReader.h"
#include "TYEventQueue.h"
#include "TYFrameCount.h"
#include "TYSinkWatch.h"

#include <gst/gst.h>

#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

/// The URI that the application has set last. It is read where a playbin cannot block: its property
/// needs a lock, which a streaming thread may hold that waits for the application.
///
/// Threads: any.
class CTYUriNote {
  public:
    void Set(std::string uri) {
        const std::lock_guard lock(m_Mutex);
        m_strUri = std::move(uri);
    }
    std::string Get() const {
        const std::lock_guard lock(m_Mutex);
        return m_strUri;
    }

  private:
    mutable std::mutex m_Mutex;
    std::string m_strUri;  // guarded by m_Mutex
};

/// Connects to a pipeline's signals and bus, and looks at it. Holds no reference to the pipeline,
/// only to its bus.
///
/// Handlers run on streaming threads and on the application's. They read what they are given, stamp
/// it and hand it over: they neither block nor query the pipeline. Each handler shares what it
/// uses, so one that still runs after Disconnect does no harm.
///
/// Threads: one calls Connect and, later, one Disconnect. The observer's thread calls the rest.
class CTYPipelineWatch {
  public:
    CTYPipelineWatch(GstElement* pPipeline, const std::shared_ptr<CTYEventQueue>& pQueue);
    /// Disconnects.
    ~CTYPipelineWatch();
    CTYPipelineWatch(const CTYPipelineWatch&) = delete;
    CTYPipelineWatch& operator=(const CTYPipelineWatch&) = delete;

    /// Connects. Elements that the pipeline already has are watched, too.
    /// @return false if another watch is connected to the pipeline, or if it has no bus
    bool Connect(GstElement* pPipeline);
    /// @return whether a watch is connected to the pipeline
    static bool IsWatched(GstElement* pPipeline);

    /// Disconnects all handlers and removes all probes. A second call does nothing.
    void Disconnect();

    /// Looks at the pipeline. Takes a reference to it for that moment: if the application drops its
    /// own meanwhile, the pipeline is disposed on this thread.
    /// @param asks  whether to ask for the duration, and whether the content is live
    TYSample Look(bool asks);
    /// @return the URI of a source, or else the one that the application has set; a made-up one if
    ///   there is none
    std::string FindUri();

  private:
    void ConnectSignals(GstElement* pPipeline);
    void ConnectBus(const GstElement* pPipeline);
    void AddAll(GstElement* pPipeline);
    void TellState(GstElement* pPipeline);

    // Set once.
    const std::shared_ptr<CTYEventQueue> m_pQueue;
    const std::shared_ptr<CTYFrameCount> m_pFrames;
    const std::shared_ptr<CTYSinkWatch> m_pSinks;
    const std::shared_ptr<CTYUriNote> m_pUri;
    GstBus* const m_pBus;

    // Of the threads that connect and disconnect.
    std::vector<gulong> m_Handlers;
    gulong m_nBusHandler = 0;

    GWeakRef m_Pipeline;  ///< has its own lock
};

#endif  // TALLYRA_GST_TYPIPELINEWATCH_H
