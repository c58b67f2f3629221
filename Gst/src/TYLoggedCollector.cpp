// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYLoggedCollector.h"

#include "TYEventCodes.h"

#include <gst/gst.h>

#include <mutex>
#include <utility>

#define GST_CAT_DEFAULT tallyra_debug
// gst_deinit frees the debug category, and an application may detach after it.
#define TY_GST_LOG(...)             \
    do {                            \
        if (gst_is_initialized()) { \
            GST_LOG(__VA_ARGS__);   \
        }                           \
    } while (false)
GST_DEBUG_CATEGORY_STATIC(tallyra_debug);

namespace {

const char* NameOf(TY_EVENT_TYPE event) {
    return NameOfCode(event).value_or("event").data();
}

}  // namespace

CTYLoggedCollector::CTYLoggedCollector(ITYDataCollector& collector) : m_Collector(collector) {
    // Each observer's thread comes here.
    static std::once_flag made;
    std::call_once(
        made, [] { GST_DEBUG_CATEGORY_INIT(tallyra_debug, "tallyra", 0, "reports of playbacks"); });
}

void CTYLoggedCollector::SetServiceVersion(const char* pServiceVersion) {
    m_Collector.SetServiceVersion(pServiceVersion);
}

void CTYLoggedCollector::SetContentInfo(CTYContentInfo* pContentInfo) {
    TY_GST_LOG("content %s, title '%s', duration %d, type %d, DRM %d",
               pContentInfo->GetURL().c_str(), pContentInfo->GetTitle().c_str(),
               pContentInfo->GetDuration(), pContentInfo->GetContentType(),
               pContentInfo->GetDrmType());
    m_Collector.SetContentInfo(pContentInfo);
}

void CTYLoggedCollector::SetDuration(int duration) {
    TY_GST_LOG("duration %d", duration);
    m_Collector.SetDuration(duration);
}

void CTYLoggedCollector::SetDrmType(TY_DRM_TYPE drmType) {
    TY_GST_LOG("DRM %d", drmType);
    m_Collector.SetDrmType(drmType);
}

void CTYLoggedCollector::SetContentType(TY_CONTENT_TYPE contentType) {
    TY_GST_LOG("content type %d", contentType);
    m_Collector.SetContentType(contentType);
}

void CTYLoggedCollector::SendMediaEvent(TY_EVENT_TYPE event, int param1, int param2) {
    TY_GST_LOG("%s %d (%d, %d)", NameOf(event), event, param1, param2);
    m_Collector.SendMediaEvent(event, param1, param2);
}

void CTYLoggedCollector::SendMediaError(TY_ERROR_TYPE error) {
    TY_GST_LOG("error %d", error);
    m_Collector.SendMediaError(error);
}

bool CTYLoggedCollector::Execute(int code, int value, std::string text) {
    TY_GST_LOG("execute %d (%d) '%s'", code, value, text.c_str());
    return m_Collector.Execute(code, value, std::move(text));
}
