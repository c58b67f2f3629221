// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_GST_TYLOGGEDCOLLECTOR_H
#define TALLYRA_GST_TYLOGGEDCOLLECTOR_H

#include "tallyra/ITYDataCollector.h"

#include <string>

/// Passes all calls on to a collector, and writes them to GStreamer's debug log: category
/// `tallyra`, level LOG.
///
/// Threads: one.
class CTYLoggedCollector final : public ITYDataCollector {
  public:
    /// @param collector  must live as long as this object
    explicit CTYLoggedCollector(ITYDataCollector& collector);

    void SetServiceVersion(const char* pServiceVersion) override;
    void SetContentInfo(CTYContentInfo* pContentInfo) override;
    void SetDuration(int duration) override;
    void SetDrmType(TY_DRM_TYPE drmType) override;
    void SetContentType(TY_CONTENT_TYPE contentType) override;
    TY_DRM_TYPE GetDrmType() override { return m_Collector.GetDrmType(); }
    TY_CONTENT_TYPE GetContentType() override { return m_Collector.GetContentType(); }
    void SendMediaEvent(TY_EVENT_TYPE event, int param1, int param2) override;
    void SendMediaError(TY_ERROR_TYPE error) override;
    bool Execute(int code, int value, std::string text) override;
    bool GetVersion(int* pMajor, int* pMinor) override {
        return m_Collector.GetVersion(pMajor, pMinor);
    }

  private:
    ITYDataCollector& m_Collector;
};

#endif  // TALLYRA_GST_TYLOGGEDCOLLECTOR_H
