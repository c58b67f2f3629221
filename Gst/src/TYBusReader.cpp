// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYBusReader.h"

#include "TYElementClass.h"
#include "TYPublicText.h"

#include <memory>
#include <string>

namespace {

constexpr int kBuffered = 100;

std::string TagOf(const GstTagList* pTags, const gchar* pTag) {
    gchar* pText = nullptr;
    if (!gst_tag_list_get_string(pTags, pTag, &pText)) {
        return {};
    }
    const std::unique_ptr<gchar, decltype(&g_free)> pOwned(pText, g_free);
    return std::string(CutText(pText));
}

// Decoders count the frames that they drop. Sinks do, too, and are asked.
bool IsVideoDecoder(GstObject* pSource) {
    return GST_IS_ELEMENT(pSource) && HasClass(GST_ELEMENT(pSource), "Decoder") &&
           HasClass(GST_ELEMENT(pSource), "Video");
}

}  // namespace

void CTYBusReader::Read(GstMessage* pMessage) {
    m_pQueue->Handle([&] { ReadAny(pMessage); });
}

void CTYBusReader::ReadAny(GstMessage* pMessage) {
    if (GST_MESSAGE_SRC(pMessage) == m_pPipeline) {
        ReadFromPipeline(pMessage);
    }
    switch (GST_MESSAGE_TYPE(pMessage)) {
        case GST_MESSAGE_BUFFERING:
            ReadBuffering(pMessage);
            break;
        case GST_MESSAGE_ERROR:
            ReadError(pMessage);
            break;
        case GST_MESSAGE_TAG:
            ReadTags(pMessage);
            break;
        case GST_MESSAGE_ELEMENT:
            ReadStatistics(pMessage);
            break;
        case GST_MESSAGE_QOS:
            ReadQos(pMessage);
            break;
        default:
            break;
    }
}

void CTYBusReader::ReadFromPipeline(GstMessage* pMessage) {
    switch (GST_MESSAGE_TYPE(pMessage)) {
        case GST_MESSAGE_STATE_CHANGED:
            ReadState(pMessage);
            break;
        case GST_MESSAGE_ASYNC_DONE:
            m_pQueue->Push(TYAsyncDone{});
            break;
        case GST_MESSAGE_STREAM_START:
            m_pQueue->Push(TYStreamStart{});
            break;
        case GST_MESSAGE_EOS:
            m_pQueue->Push(TYEndOfStream{});
            break;
        default:
            break;
    }
}

void CTYBusReader::ReadState(GstMessage* pMessage) {
    GstState before = GST_STATE_NULL;
    GstState now = GST_STATE_NULL;
    GstState pending = GST_STATE_NULL;
    gst_message_parse_state_changed(pMessage, &before, &now, &pending);
    if (now <= GST_STATE_READY) {
        const std::lock_guard lock(m_BufferingMutex);
        m_bLow = false;
    }
    m_pQueue->Push(TYStateChange{static_cast<TYPipelineState>(before),
                                 static_cast<TYPipelineState>(now),
                                 static_cast<TYPipelineState>(pending)});
}

void CTYBusReader::ReadBuffering(GstMessage* pMessage) {
    gint percent = kBuffered;
    gst_message_parse_buffering(pMessage, &percent);
    const bool isLow = percent < kBuffered;
    const std::lock_guard lock(m_BufferingMutex);
    if (m_bLow != isLow) {
        m_pQueue->Push(TYBuffering{isLow});
        m_bLow = isLow;
    }
}

void CTYBusReader::ReadError(GstMessage* pMessage) {
    GError* pError = nullptr;
    gst_message_parse_error(pMessage, &pError, nullptr);
    const GstStructure* pDetails = nullptr;
    gst_message_parse_error_details(pMessage, &pDetails);
    guint status = 0;
    if (pDetails != nullptr) {
        gst_structure_get_uint(pDetails, "http-status-code", &status);
    }
    if (pError != nullptr) {
        const std::unique_ptr<GError, decltype(&g_error_free)> pOwned(pError, g_error_free);
        const gchar* pDomain = g_quark_to_string(pError->domain);
        m_pQueue->Push(TYGstError{pDomain != nullptr ? pDomain : "", pError->code,
                                  PublicText(pError->message), static_cast<int>(status)});
    }
}

void CTYBusReader::ReadTags(GstMessage* pMessage) {
    GstTagList* pTags = nullptr;
    gst_message_parse_tag(pMessage, &pTags);
    if (pTags == nullptr) {
        return;
    }
    guint rate = 0;
    if (!gst_tag_list_get_uint(pTags, GST_TAG_BITRATE, &rate)) {
        gst_tag_list_get_uint(pTags, GST_TAG_NOMINAL_BITRATE, &rate);
    }
    const bool isVideo = gst_tag_list_get_tag_size(pTags, GST_TAG_VIDEO_CODEC) > 0;
    TYTags tags{TagOf(pTags, GST_TAG_TITLE), TagOf(pTags, GST_TAG_GENRE),
                static_cast<int>(rate / 1000), isVideo};
    gst_tag_list_unref(pTags);
    if (tags.kbps != 0 || !tags.title.empty() || !tags.genre.empty()) {
        m_pQueue->Push(std::move(tags));
    }
}

void CTYBusReader::ReadStatistics(GstMessage* pMessage) {
    const GstStructure* pStructure = gst_message_get_structure(pMessage);
    if (pStructure == nullptr ||
        !gst_structure_has_name(pStructure, "adaptive-streaming-statistics")) {
        return;
    }
    gint rate = 0;
    guint unsignedRate = 0;
    if (!gst_structure_get_int(pStructure, "bitrate", &rate) &&
        gst_structure_get_uint(pStructure, "bitrate", &unsignedRate)) {
        rate = static_cast<gint>(unsignedRate);
    }
    if (rate > 0 || gst_structure_has_field(pStructure, "manifest-download-start")) {
        m_pQueue->Push(TYVariant{rate / 1000});
    }
}

void CTYBusReader::ReadQos(GstMessage* pMessage) {
    GstFormat format = GST_FORMAT_UNDEFINED;
    guint64 processed = 0;
    guint64 dropped = 0;
    gst_message_parse_qos_stats(pMessage, &format, &processed, &dropped);
    if (format == GST_FORMAT_BUFFERS && dropped != G_MAXUINT64 &&
        IsVideoDecoder(GST_MESSAGE_SRC(pMessage))) {
        m_pFrames->Set(GST_MESSAGE_SRC(pMessage), dropped, 0);
    }
}
