// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Truth.h"

#include <glib/gprintf.h>

#include <cstdio>

namespace {

// The place of a frame in its media, in milliseconds; 0 if it has none.
std::int64_t PositionOf(GstBuffer* pBuffer, GstPad* pPad) {
    GstEvent* pEvent = gst_pad_get_sticky_event(pPad, GST_EVENT_SEGMENT, 0);
    if (pEvent == nullptr) {
        return 0;
    }
    const GstSegment* pSegment = nullptr;
    gst_event_parse_segment(pEvent, &pSegment);
    const guint64 time =
        gst_segment_to_stream_time(pSegment, GST_FORMAT_TIME, GST_BUFFER_PTS(pBuffer));
    gst_event_unref(pEvent);
    return GST_CLOCK_TIME_IS_VALID(time) ? static_cast<std::int64_t>(time / GST_MSECOND) : 0;
}

std::string Member(const char* pName, std::int64_t value) {
    return std::string(",\"") + pName + "\":" + std::to_string(value);
}

std::string Seconds(std::int64_t us) {
    char text[32];
    g_snprintf(text, sizeof(text), "%.6f", static_cast<double>(us) / 1e6);
    return text;
}

}  // namespace

void CTruth::SayAt(std::int64_t atUs, const char* pWhat, const std::string& more) {
    const std::string line =
        "{\"at\":" + Seconds(atUs) + ",\"what\":\"" + pWhat + "\"" + more + "}\n";
    static std::mutex lock;
    const std::lock_guard guard(lock);
    std::fputs(line.c_str(), stdout);
    std::fflush(stdout);
}

void CTruth::Picture(GstBuffer* pBuffer, GstPad* pPad) {
    const std::int64_t now = g_get_real_time();
    const std::int64_t position = PositionOf(pBuffer, pPad);
    if (m_nLastUs != 0 && now - m_nLastUs > kGapUs) {
        SayAt(m_nLastUs, "gap",
              ",\"to\":" + Seconds(now) + Member("position", m_nPositionMs) +
                  Member("next", position));
    }
    m_nLastUs = now;
    m_nPositionMs = position;
    ++m_nFrames;
    NoteStream(pPad);
    NoteSize(pPad);
}

void CTruth::NoteStream(GstPad* pPad) {
    gchar* pId = gst_pad_get_stream_id(pPad);
    const std::string id = pId != nullptr ? pId : "";
    g_free(pId);
    if (id != m_strStream) {
        m_strStream = id;
        SayAt(m_nLastUs, "picture", Member("position", m_nPositionMs));
    }
}

void CTruth::NoteSize(GstPad* pPad) {
    GstCaps* pCaps = gst_pad_get_current_caps(pPad);
    int width = 0;
    int height = 0;
    if (pCaps != nullptr) {
        const GstStructure* pStructure = gst_caps_get_structure(pCaps, 0);
        gst_structure_get_int(pStructure, "width", &width);
        gst_structure_get_int(pStructure, "height", &height);
        gst_caps_unref(pCaps);
    }
    if (width != m_nWidth || height != m_nHeight) {
        m_nWidth = width;
        m_nHeight = height;
        SayAt(m_nLastUs, "size", Member("width", width) + Member("height", height));
    }
}

void CTruth::Last() {
    if (m_nLastUs != 0) {
        SayAt(m_nLastUs, "last", Member("position", m_nPositionMs) + Member("frames", m_nFrames));
    }
    m_nLastUs = 0;
    m_nFrames = 0;
    m_strStream.clear();
    m_nWidth = m_nHeight = 0;
}
