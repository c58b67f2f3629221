// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYPipelineWatch.h"

#include "TYElementClass.h"
#include "TYHandlers.h"
#include "TYIterate.h"

#include <algorithm>
#include <array>
#include <climits>
#include <string>
#include <string_view>
#include <utility>

namespace {

// Marks a pipeline that is watched, so that the tracer does not observe it a second time.
GQuark WatchedQuark() {
    return g_quark_from_static_string("tallyra-gst-watched");
}

// What a handler of the pipeline's signals uses. GObject destroys the handlers of an object that is
// disposed, which ends the queue.
struct Hook {
    Hook(std::shared_ptr<CTYEventQueue> pEvents, std::shared_ptr<CTYSinkWatch> pSinkWatch,
         std::shared_ptr<CTYUriNote> pNote, bool ends)
        : pQueue(std::move(pEvents)),
          pSinks(std::move(pSinkWatch)),
          pUri(std::move(pNote)),
          endsQueue(ends) {}
    ~Hook() {
        if (endsQueue) {
            pQueue->Close();
        }
    }
    Hook(const Hook&) = delete;
    Hook& operator=(const Hook&) = delete;

    const std::shared_ptr<CTYEventQueue> pQueue;
    const std::shared_ptr<CTYSinkWatch> pSinks;
    const std::shared_ptr<CTYUriNote> pUri;
    const bool endsQueue;
};

// Subtitles in a file of their own have their own source.
bool IsSubtitle(std::string_view uri) {
    constexpr std::array<std::string_view, 6> kSuffixes = {".srt", ".vtt", ".ass",
                                                           ".ssa", ".sub", ".ttml"};
    const std::string_view path = uri.substr(0, uri.find_first_of("?#"));
    return std::ranges::any_of(kSuffixes, [&](auto suffix) { return path.ends_with(suffix); });
}

std::string TakeText(gchar* pText) {
    std::string text(pText != nullptr ? pText : "");
    g_free(pText);
    return text;
}

std::string UriOfSource(GstElement* pSource) {
    return GST_IS_URI_HANDLER(pSource) ? TakeText(gst_uri_handler_get_uri(GST_URI_HANDLER(pSource)))
                                       : std::string();
}

void OnSourceSetup(GstElement* /*pPipeline*/, GstElement* pSource, gpointer pHook) {
    const CTYHandlerScope scope;
    CTYEventQueue& queue = *static_cast<Hook*>(pHook)->pQueue;
    queue.Handle([&] {
        std::string uri = UriOfSource(pSource);
        if (!uri.empty() && !IsSubtitle(uri)) {
            queue.Push(TYSourceReady{std::move(uri)});
        }
    });
}

void OnAboutToFinish(GstElement* /*pPipeline*/, gpointer pHook) {
    const CTYHandlerScope scope;
    CTYEventQueue& queue = *static_cast<Hook*>(pHook)->pQueue;
    queue.Handle([&] { queue.Push(TYAboutToFinish{}); });
}

void OnElementAdded(GstBin* /*pPipeline*/, GstBin* /*pBin*/, GstElement* pElement, gpointer pHook) {
    const CTYHandlerScope scope;
    const Hook& hook = *static_cast<Hook*>(pHook);
    hook.pQueue->Handle([&] { hook.pSinks->Add(pElement); });
}

void OnElementRemoved(GstBin* /*pPipeline*/, GstBin* /*pBin*/, GstElement* pElement,
                      gpointer pHook) {
    const CTYHandlerScope scope;
    const Hook& hook = *static_cast<Hook*>(pHook);
    hook.pQueue->Handle([&] { hook.pSinks->Remove(pElement); });
}

void OnMessage(GstBus* /*pBus*/, GstMessage* pMessage, gpointer pReader) {
    const CTYHandlerScope scope;
    static_cast<CTYBusReader*>(pReader)->Read(pMessage);
}

std::string ReadUri(GstElement* pPipeline) {
    gchar* pUri = nullptr;
    if (g_object_class_find_property(G_OBJECT_GET_CLASS(pPipeline), "uri") != nullptr) {
        g_object_get(pPipeline, "uri", &pUri, nullptr);
    }
    return TakeText(pUri);
}

// On the application's thread, which has just set it.
void OnUriSet(GstElement* pPipeline, GParamSpec* /*pProperty*/, gpointer pHook) {
    const CTYHandlerScope scope;
    const Hook& hook = *static_cast<Hook*>(pHook);
    hook.pQueue->Handle([&] { hook.pUri->Set(ReadUri(pPipeline)); });
}

bool IsToStop(GstElement* pPipeline) {
    GST_OBJECT_LOCK(pPipeline);
    const bool isToStop = GST_STATE_TARGET(pPipeline) <= GST_STATE_READY;
    GST_OBJECT_UNLOCK(pPipeline);
    return isToStop;
}

int ToInt(std::uint64_t value) {
    return static_cast<int>(std::min<std::uint64_t>(value, INT_MAX));
}

// Such a demuxer has sources of its own, for the segments.
bool IsInAdaptive(GstElement* pElement) {
    GstObject* pParent = gst_object_get_parent(GST_OBJECT(pElement));
    bool isInAdaptive = false;
    while (pParent != nullptr && !isInAdaptive) {
        isInAdaptive = GST_IS_ELEMENT(pParent) && IsAdaptive(GST_ELEMENT(pParent));
        GstObject* pNext = gst_object_get_parent(pParent);
        gst_object_unref(pParent);
        pParent = pNext;
    }
    gst_clear_object(&pParent);
    return isInAdaptive;
}

std::string UriOfSources(GstElement* pPipeline) {
    std::string uri;
    Iterate(gst_bin_iterate_recurse(GST_BIN(pPipeline)), [&uri](GstObject* pObject) {
        auto* pElement = GST_ELEMENT(pObject);
        if (uri.empty() && GST_OBJECT_FLAG_IS_SET(pElement, GST_ELEMENT_FLAG_SOURCE) &&
            !IsInAdaptive(pElement)) {
            const std::string found = UriOfSource(pElement);
            uri = IsSubtitle(found) ? "" : found;
        }
    });
    return uri;
}

}  // namespace

CTYPipelineWatch::CTYPipelineWatch(GstElement* pPipeline,
                                   const std::shared_ptr<CTYEventQueue>& pQueue)
    : m_pQueue(pQueue),
      m_pFrames(std::make_shared<CTYFrameCount>()),
      m_pSinks(std::make_shared<CTYSinkWatch>(pQueue, m_pFrames)),
      m_pUri(std::make_shared<CTYUriNote>()),
      m_pBus(gst_element_get_bus(pPipeline)) {
    g_weak_ref_init(&m_Pipeline, pPipeline);
}

CTYPipelineWatch::~CTYPipelineWatch() {
    Disconnect();
    if (m_pBus != nullptr) {
        gst_object_unref(m_pBus);
    }
    g_weak_ref_clear(&m_Pipeline);
}

bool CTYPipelineWatch::Connect(GstElement* pPipeline) {
    if (m_pBus == nullptr || g_object_replace_qdata(G_OBJECT(pPipeline), WatchedQuark(), nullptr,
                                                    this, nullptr, nullptr) == FALSE) {
        return false;
    }
    ConnectSignals(pPipeline);
    ConnectBus(pPipeline);
    // A playback in progress starts first, so that the size of its picture belongs to it.
    TellState(pPipeline);
    AddAll(pPipeline);
    return true;
}

void CTYPipelineWatch::ConnectSignals(GstElement* pPipeline) {
    struct Signal {
        const char* pName;
        GCallback handler;
        bool endsQueue;
    };
    const std::array<Signal, 5> signals = {
        {{"deep-element-added", G_CALLBACK(OnElementAdded), true},
         {"deep-element-removed", G_CALLBACK(OnElementRemoved), false},
         {"notify::uri", G_CALLBACK(OnUriSet), false},
         {"source-setup", G_CALLBACK(OnSourceSetup), false},
         {"about-to-finish", G_CALLBACK(OnAboutToFinish), false}}};
    m_Handlers.reserve(signals.size());
    for (const Signal& signal : signals) {
        guint id = 0;
        GQuark detail = 0;
        if (g_signal_parse_name(signal.pName, G_OBJECT_TYPE(pPipeline), &id, &detail, TRUE)) {
            m_Handlers.push_back(ConnectHandler(
                pPipeline, signal.pName, signal.handler,
                std::make_unique<Hook>(m_pQueue, m_pSinks, m_pUri, signal.endsQueue)));
        }
    }
}

void CTYPipelineWatch::ConnectBus(const GstElement* pPipeline) {
    auto pReader = std::make_unique<CTYBusReader>(pPipeline, m_pQueue, m_pFrames);
    gst_bus_enable_sync_message_emission(m_pBus);
    m_nBusHandler =
        ConnectHandler(m_pBus, "sync-message", G_CALLBACK(OnMessage), std::move(pReader));
}

void CTYPipelineWatch::AddAll(GstElement* pPipeline) {
    Iterate(gst_bin_iterate_recurse(GST_BIN(pPipeline)),
            [this](GstObject* pElement) { m_pSinks->Add(GST_ELEMENT(pElement)); });
}

// A playback that is already in progress is reported from now on.
void CTYPipelineWatch::TellState(GstElement* pPipeline) {
    GstState now = GST_STATE_NULL;
    GstState pending = GST_STATE_NULL;
    gst_element_get_state(pPipeline, &now, &pending, 0);
    const auto next = static_cast<TYPipelineState>(pending);
    if (now >= GST_STATE_PAUSED) {
        m_pQueue->Push(TYStateChange{TYPipelineState::READY, TYPipelineState::PAUSED, next});
    }
    // No streaming thread holds the lock yet.
    if (now == GST_STATE_NULL || (now == GST_STATE_READY && pending <= GST_STATE_READY)) {
        m_pUri->Set(ReadUri(pPipeline));
    }
    if (now == GST_STATE_PLAYING) {
        m_pQueue->Push(TYStateChange{TYPipelineState::PAUSED, TYPipelineState::PLAYING, next});
    }
}

bool CTYPipelineWatch::IsWatched(GstElement* pPipeline) {
    return g_object_get_qdata(G_OBJECT(pPipeline), WatchedQuark()) != nullptr;
}

void CTYPipelineWatch::Disconnect() {
    if (m_nBusHandler != 0) {
        g_signal_handler_disconnect(m_pBus, std::exchange(m_nBusHandler, 0));
        gst_bus_disable_sync_message_emission(m_pBus);
    }
    m_pSinks->RemoveAll();
    gpointer pPipeline = g_weak_ref_get(&m_Pipeline);
    if (pPipeline == nullptr) {
        return;
    }
    for (const gulong handler : std::exchange(m_Handlers, {})) {
        g_signal_handler_disconnect(pPipeline, handler);
    }
    g_object_replace_qdata(G_OBJECT(pPipeline), WatchedQuark(), this, nullptr, nullptr, nullptr);
    gst_object_unref(pPipeline);
}

TYSample CTYPipelineWatch::Look(bool asks) {
    TYSample sample;
    auto* pPipeline = static_cast<GstElement*>(g_weak_ref_get(&m_Pipeline));
    if (pPipeline == nullptr) {
        return sample;
    }
    sample.isStopped = IsToStop(pPipeline);
    gst_object_unref(pPipeline);
    m_pSinks->Ask(asks, sample);
    const CTYFrameCount::Sum frames = m_pFrames->Get();
    sample.framesDropped = ToInt(frames.dropped);
    sample.framesRendered = ToInt(frames.rendered);
    return sample;
}

std::string CTYPipelineWatch::FindUri() {
    auto* pPipeline = static_cast<GstElement*>(g_weak_ref_get(&m_Pipeline));
    std::string uri = pPipeline != nullptr ? UriOfSources(pPipeline) : "";
    uri = uri.empty() ? m_pUri->Get() : uri;
    if (uri.empty()) {
        const auto name = [&] { return TakeText(gst_object_get_name(GST_OBJECT(pPipeline))); };
        uri = "pipeline:" + (pPipeline != nullptr ? name() : "disposed");
    }
    gst_clear_object(&pPipeline);
    return uri;
}
