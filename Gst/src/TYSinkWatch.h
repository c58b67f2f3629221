// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_GST_TYSINKWATCH_H
#define TALLYRA_GST_TYSINKWATCH_H

#include "TYEventQueue.h"
#include "TYFrameCount.h"

#include <gst/gst.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <set>
#include <vector>

/// Watches the pads of a pipeline's elements: sinks for seeks, segments and the size of the
/// picture, demuxers and decryptors for the systems that protect the stream. Knows adaptive
/// demuxers.
///
/// Holds no reference to an element. A probe that still runs when the watch ends finds the queue
/// closed.
///
/// Threads: any may call Add, Remove and RemoveAll, the observer's thread the rest. The mutex
/// guards the lists, and is not held while GStreamer is called.
class CTYSinkWatch : public std::enable_shared_from_this<CTYSinkWatch> {
  public:
    CTYSinkWatch(std::shared_ptr<CTYEventQueue> pQueue, std::shared_ptr<CTYFrameCount> pFrames)
        : m_pQueue(std::move(pQueue)), m_pFrames(std::move(pFrames)) {}
    CTYSinkWatch(const CTYSinkWatch&) = delete;
    CTYSinkWatch& operator=(const CTYSinkWatch&) = delete;
    ~CTYSinkWatch() = default;

    /// Watches an element if it is one of those named above.
    void Add(GstElement* pElement);
    /// Forgets an element, which has left the pipeline.
    void Remove(GstElement* pElement);
    /// Removes all probes and handlers. Add does nothing afterwards.
    void RemoveAll();
    /// Asks the sinks for position and frames, not the pipeline: a playbin holds its lock while the
    /// application prepares the next content.
    /// @param asks    whether to ask for the duration, and whether the content is live
    /// @param sample  receives the answers
    void Ask(bool asks, TYSample& sample);

  private:
    /// A weak reference to a GObject.
    class CWeak {
      public:
        explicit CWeak(gpointer pObject) { g_weak_ref_init(&m_Ref, pObject); }
        ~CWeak() { g_weak_ref_clear(&m_Ref); }
        CWeak(const CWeak&) = delete;
        CWeak& operator=(const CWeak&) = delete;
        /// @return a new reference; null if the object is gone
        gpointer Get() { return g_weak_ref_get(&m_Ref); }

      private:
        GWeakRef m_Ref;
    };

    /// What a sink's probe needs.
    struct Sink {
        explicit Sink(GstElement* pSink) : element(pSink), pIdentity(pSink) {}

        CWeak element;
        const void* pIdentity;  ///< only compared
        std::atomic<bool> isVideo{false};
    };

    struct SinkHook {
        std::shared_ptr<CTYEventQueue> pQueue;
        std::shared_ptr<Sink> pSink;
    };

    /// A probe, or a handler of a signal.
    struct Hold {
        Hold(gpointer pObject, const void* pElement, gulong heldId, bool probe)
            : object(pObject), pOwner(pElement), id(heldId), isProbe(probe) {}

        CWeak object;
        const void* pOwner;  ///< the element, only compared
        gulong id;
        bool isProbe;
    };

    static GstPadProbeReturn OnSinkEvent(GstPad* pPad, GstPadProbeInfo* pInfo, gpointer pHook);
    static GstPadProbeReturn OnStreamEvent(GstPad* pPad, GstPadProbeInfo* pInfo, gpointer pQueue);
    static void OnPadAdded(GstElement* pElement, GstPad* pPad, gpointer pWatch);
    static void ReadSinkEvent(GstEvent* pEvent, const SinkHook& hook);
    static void ReadCaps(const GstCaps* pCaps, const SinkHook& hook);

    std::vector<std::shared_ptr<Sink>> Sinks();
    bool HasAdaptive();
    void AddSink(GstElement* pElement);
    void AddDemuxer(GstElement* pElement);
    void WatchProtection(GstPad* pPad);
    static void AskForRest(GstElement* pElement, TYSample& sample);
    void AskForPosition(const Sink& sink, GstElement* pElement, TYSample& sample);
    void Keep(gpointer pObject, const void* pElement, gulong id, bool isProbe);
    static void End(Hold& hold);

    // Set once.
    const std::shared_ptr<CTYEventQueue> m_pQueue;
    const std::shared_ptr<CTYFrameCount> m_pFrames;

    std::mutex m_Mutex;
    // Guarded by m_Mutex.
    bool m_bEnded = false;
    std::vector<std::shared_ptr<Sink>> m_Sinks;
    std::vector<std::shared_ptr<Hold>> m_Holds;
    std::set<const void*> m_Adaptive;  ///< the adaptive demuxers, only compared

    // The observer's thread only.
    const void* m_pLeader = nullptr;  ///< the most advanced sink of the last look, only compared
    int m_nPosition = kGstUnknown;    ///< its position
};

#endif  // TALLYRA_GST_TYSINKWATCH_H
