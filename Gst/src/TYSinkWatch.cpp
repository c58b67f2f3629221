// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYSinkWatch.h"

#include "TYElementClass.h"
#include "TYHandlers.h"
#include "TYIterate.h"
#include "TYMilliseconds.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace {

TYSeek ReadSeek(GstEvent* pEvent) {
    gdouble rate = 1;
    GstFormat format = GST_FORMAT_UNDEFINED;
    GstSeekFlags flags = GST_SEEK_FLAG_NONE;
    GstSeekType startType = GST_SEEK_TYPE_NONE;
    GstSeekType stopType = GST_SEEK_TYPE_NONE;
    gint64 start = 0;
    gint64 stop = 0;
    gst_event_parse_seek(pEvent, &rate, &format, &flags, &startType, &start, &stopType, &stop);
    const GstSeekType type = rate < 0 ? stopType : startType;
    const gint64 position = rate < 0 ? stop : start;
    TYSeek seek{gst_event_get_seqnum(pEvent), TYSeek::Target::SAME_PLACE, kGstUnknown,
                (flags & GST_SEEK_FLAG_FLUSH) != 0, rate};
    if (type == GST_SEEK_TYPE_SET && format == GST_FORMAT_TIME && position >= 0) {
        seek.target = TYSeek::Target::POSITION;
        seek.position = ToMilliseconds(position);
    } else if (type == GST_SEEK_TYPE_END) {
        seek.target = TYSeek::Target::END;
    }
    return seek;
}

// Such a seek changes only the rate, from where the picture is.
bool IsRateChange(GstEvent* pEvent) {
    GstSeekFlags flags = GST_SEEK_FLAG_NONE;
    gst_event_parse_seek(pEvent, nullptr, nullptr, &flags, nullptr, nullptr, nullptr, nullptr);
    return (flags & GST_SEEK_FLAG_INSTANT_RATE_CHANGE) != 0;
}

double RateOf(GstEvent* pSeek) {
    gdouble rate = 1;
    gst_event_parse_seek(pSeek, &rate, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    return rate;
}

int AskPosition(GstElement* pSink) {
    gint64 position = 0;
    const bool isKnown = gst_element_query_position(pSink, GST_FORMAT_TIME, &position) != FALSE;
    return isKnown && position >= 0 ? ToMilliseconds(position) : kGstUnknown;
}

int AskDuration(GstElement* pSink) {
    gint64 duration = 0;
    const bool isKnown = gst_element_query_duration(pSink, GST_FORMAT_TIME, &duration) != FALSE;
    return isKnown && duration > 0 ? ToMilliseconds(duration) : kGstUnknown;
}

// A sink that synchronises with the clock says of itself that it is live; what feeds it tells.
bool IsFedLive(GstElement* pSink) {
    GstPad* pPad = gst_element_get_static_pad(pSink, "sink");
    if (pPad == nullptr) {
        return false;
    }
    GstQuery* pQuery = gst_query_new_latency();
    gboolean isLive = FALSE;
    if (gst_pad_peer_query(pPad, pQuery)) {
        gst_query_parse_latency(pQuery, &isLive, nullptr, nullptr);
    }
    gst_query_unref(pQuery);
    gst_object_unref(pPad);
    return isLive != FALSE;
}

void ReadFrames(gpointer pSink, CTYFrameCount& frames) {
    if (g_object_class_find_property(G_OBJECT_GET_CLASS(pSink), "stats") == nullptr) {
        return;
    }
    GstStructure* pStats = nullptr;
    g_object_get(pSink, "stats", &pStats, nullptr);
    guint64 dropped = 0;
    guint64 rendered = 0;
    if (pStats != nullptr && gst_structure_get_uint64(pStats, "dropped", &dropped) &&
        gst_structure_get_uint64(pStats, "rendered", &rendered)) {
        frames.Set(pSink, dropped, rendered);
    }
    g_clear_pointer(&pStats, gst_structure_free);
}

}  // namespace

void CTYSinkWatch::Add(GstElement* pElement) {
    // Adaptive demuxers are bins.
    if (IsAdaptive(pElement)) {
        const std::lock_guard lock(m_Mutex);
        m_Adaptive.insert(pElement);
    }
    if (GST_IS_BIN(pElement)) {
        return;
    }
    if (GST_OBJECT_FLAG_IS_SET(pElement, GST_ELEMENT_FLAG_SINK)) {
        AddSink(pElement);
    } else if (HasClass(pElement, "Demuxer") || HasClass(pElement, "Decryptor")) {
        AddDemuxer(pElement);
    }
}

void CTYSinkWatch::AddSink(GstElement* pElement) {
    const std::unique_ptr<GstPad, TYUnref> pOwned(gst_element_get_static_pad(pElement, "sink"));
    GstPad* pPad = pOwned.get();
    if (pPad == nullptr) {
        return;
    }
    auto pHook = std::make_unique<SinkHook>(SinkHook{m_pQueue, std::make_shared<Sink>(pElement)});
    {
        const std::lock_guard lock(m_Mutex);
        m_Sinks.push_back(pHook->pSink);
    }
    if (GstCaps* pCaps = gst_pad_get_current_caps(pPad)) {
        ReadCaps(pCaps, *pHook);
        gst_caps_unref(pCaps);
    }
    const gulong id = AddProbe(pPad, GST_PAD_PROBE_TYPE_EVENT_BOTH, OnSinkEvent, std::move(pHook));
    Keep(pPad, pElement, id, true);
}

void CTYSinkWatch::AddDemuxer(GstElement* pElement) {
    using Self = std::shared_ptr<CTYSinkWatch>;
    const auto watch = [this](GstObject* pPad) { WatchProtection(GST_PAD(pPad)); };
    if (HasClass(pElement, "Decryptor")) {
        Iterate(gst_element_iterate_sink_pads(pElement), watch);
        return;
    }
    const gulong id = ConnectHandler(pElement, "pad-added", G_CALLBACK(OnPadAdded),
                                     std::make_unique<Self>(shared_from_this()));
    Keep(pElement, pElement, id, false);
    Iterate(gst_element_iterate_src_pads(pElement), watch);
}

void CTYSinkWatch::WatchProtection(GstPad* pPad) {
    using Queue = std::shared_ptr<CTYEventQueue>;
    const gulong id = AddProbe(pPad, GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, OnStreamEvent,
                               std::make_unique<Queue>(m_pQueue));
    Keep(pPad, GST_OBJECT_PARENT(pPad), id, true);
}

// Pads come and go with each variant: what is gone is forgotten here.
void CTYSinkWatch::Keep(gpointer pObject, const void* pElement, gulong id, bool isProbe) {
    std::vector<std::shared_ptr<Hold>> gone;
    bool hasEnded = false;
    {
        const std::lock_guard lock(m_Mutex);
        m_Holds.push_back(std::make_shared<Hold>(pObject, pElement, id, isProbe));
        gone = m_Holds;
        hasEnded = m_bEnded;
    }
    if (hasEnded) {
        RemoveAll();
        return;
    }
    std::erase_if(gone, [](const auto& pEach) {
        gpointer pAlive = pEach->object.Get();
        if (pAlive != nullptr) {
            gst_object_unref(pAlive);
        }
        return pAlive != nullptr;
    });
    const std::lock_guard lock(m_Mutex);
    std::erase_if(m_Holds, [&gone](const auto& pEach) {
        return std::ranges::find(gone, pEach) != gone.end();
    });
}

void CTYSinkWatch::RemoveAll() {
    std::vector<std::shared_ptr<Hold>> all;
    std::vector<std::shared_ptr<Sink>> sinks;
    {
        const std::lock_guard lock(m_Mutex);
        m_bEnded = true;
        std::swap(all, m_Holds);
        std::swap(sinks, m_Sinks);
    }
    for (const auto& pHold : all) {
        End(*pHold);
    }
}

void CTYSinkWatch::Remove(GstElement* pElement) {
    m_pFrames->Forget(pElement);
    std::vector<std::shared_ptr<Hold>> ended;
    std::vector<std::shared_ptr<Sink>> sinks;
    {
        const std::lock_guard lock(m_Mutex);
        const auto stays = [pElement](const auto& pEach) { return pEach->pOwner != pElement; };
        const auto hold = std::partition(m_Holds.begin(), m_Holds.end(), stays);
        std::move(hold, m_Holds.end(), std::back_inserter(ended));
        m_Holds.erase(hold, m_Holds.end());
        m_Adaptive.erase(pElement);
        const auto isOther = [pElement](const auto& pEach) { return pEach->pIdentity != pElement; };
        const auto sink = std::partition(m_Sinks.begin(), m_Sinks.end(), isOther);
        std::move(sink, m_Sinks.end(), std::back_inserter(sinks));
        m_Sinks.erase(sink, m_Sinks.end());
    }
    for (const auto& pHold : ended) {
        End(*pHold);
    }
}

void CTYSinkWatch::End(Hold& hold) {
    gpointer pObject = hold.object.Get();
    if (pObject == nullptr) {
        return;
    }
    if (hold.isProbe) {
        gst_pad_remove_probe(GST_PAD(pObject), hold.id);
    } else {
        g_signal_handler_disconnect(pObject, hold.id);
    }
    gst_object_unref(pObject);
}

// Blocks nothing and calls nothing of the pipeline: reads the event and hands it over.
GstPadProbeReturn CTYSinkWatch::OnSinkEvent(GstPad* /*pPad*/, GstPadProbeInfo* pInfo,
                                            gpointer pHook) {
    const CTYHandlerScope scope;
    const SinkHook& hook = *static_cast<SinkHook*>(pHook);
    hook.pQueue->Handle([&] { ReadSinkEvent(GST_PAD_PROBE_INFO_EVENT(pInfo), hook); });
    return GST_PAD_PROBE_OK;
}

void CTYSinkWatch::ReadSinkEvent(GstEvent* pEvent, const SinkHook& hook) {
    switch (GST_EVENT_TYPE(pEvent)) {
        case GST_EVENT_SEEK:
            if (IsRateChange(pEvent)) {
                hook.pQueue->Push(TYRate{RateOf(pEvent)});
            } else {
                hook.pQueue->Push(ReadSeek(pEvent));
            }
            break;
        case GST_EVENT_SEGMENT:
            hook.pQueue->Push(TYSegment{});
            break;
        case GST_EVENT_CAPS: {
            GstCaps* pCaps = nullptr;
            gst_event_parse_caps(pEvent, &pCaps);
            ReadCaps(pCaps, hook);
            break;
        }
        default:
            break;
    }
}

void CTYSinkWatch::ReadCaps(const GstCaps* pCaps, const SinkHook& hook) {
    const GstStructure* pStructure =
        gst_caps_get_size(pCaps) > 0 ? gst_caps_get_structure(pCaps, 0) : nullptr;
    if (pStructure == nullptr || !g_str_has_prefix(gst_structure_get_name(pStructure), "video/")) {
        return;
    }
    hook.pSink->isVideo = true;
    TYPictureSize size{0, 0};
    gst_structure_get_int(pStructure, "width", &size.width);
    gst_structure_get_int(pStructure, "height", &size.height);
    hook.pQueue->Push(size);
}

GstPadProbeReturn CTYSinkWatch::OnStreamEvent(GstPad* /*pPad*/, GstPadProbeInfo* pInfo,
                                              gpointer pQueue) {
    const CTYHandlerScope scope;
    GstEvent* pEvent = GST_PAD_PROBE_INFO_EVENT(pInfo);
    if (GST_EVENT_TYPE(pEvent) == GST_EVENT_PROTECTION) {
        const gchar* pSystemId = nullptr;
        gst_event_parse_protection(pEvent, &pSystemId, nullptr, nullptr);
        CTYEventQueue& queue = **static_cast<std::shared_ptr<CTYEventQueue>*>(pQueue);
        queue.Handle([&] { queue.Push(TYProtection{pSystemId != nullptr ? pSystemId : ""}); });
    }
    return GST_PAD_PROBE_OK;
}

void CTYSinkWatch::OnPadAdded(GstElement* /*pElement*/, GstPad* pPad, gpointer pWatch) {
    const CTYHandlerScope scope;
    if (GST_PAD_IS_SRC(pPad)) {
        CTYSinkWatch& self = **static_cast<std::shared_ptr<CTYSinkWatch>*>(pWatch);
        self.m_pQueue->Handle([&] { self.WatchProtection(pPad); });
    }
}

std::vector<std::shared_ptr<CTYSinkWatch::Sink>> CTYSinkWatch::Sinks() {
    const std::lock_guard lock(m_Mutex);
    return m_Sinks;
}

bool CTYSinkWatch::HasAdaptive() {
    const std::lock_guard lock(m_Mutex);
    return !m_Adaptive.empty();
}

// The position of a pipeline is that of its most advanced sink. While the one of the last look has
// moved on, the others need not be asked: a query takes most of a look's time. A visualisation of
// sound calls itself live, also of a file: a live source feeds all sinks.
void CTYSinkWatch::Ask(bool asks, TYSample& sample) {
    auto sinks = Sinks();
    const auto isLeader = [this](const auto& pEach) { return pEach->pIdentity == m_pLeader; };
    std::stable_partition(sinks.begin(), sinks.end(), isLeader);
    for (const auto& pSink : sinks) {
        const std::unique_ptr<GstElement, TYUnref> pOwned(
            static_cast<GstElement*>(pSink->element.Get()));
        if (pOwned == nullptr) {
            continue;
        }
        if (sample.position <= m_nPosition) {
            AskForPosition(*pSink, pOwned.get(), sample);
        }
        if (asks) {
            AskForRest(pOwned.get(), sample);
        }
        if (pSink->isVideo) {
            ReadFrames(pOwned.get(), *m_pFrames);
        }
    }
    m_nPosition = sample.position;
    sample.isAdaptive = sample.isAsked && HasAdaptive();
}

void CTYSinkWatch::AskForRest(GstElement* pElement, TYSample& sample) {
    sample.duration = std::max(sample.duration, AskDuration(pElement));
    sample.isLive = (sample.isLive || !sample.isAsked) && IsFedLive(pElement);
    sample.isAsked = true;
}

void CTYSinkWatch::AskForPosition(const Sink& sink, GstElement* pElement, TYSample& sample) {
    const int position = AskPosition(pElement);
    if (position > sample.position) {
        sample.position = position;
        m_pLeader = sink.pIdentity;
    }
}
