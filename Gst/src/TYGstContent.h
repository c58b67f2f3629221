// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_GST_TYGSTCONTENT_H
#define TALLYRA_GST_TYGSTCONTENT_H

#include "TYGstEvent.h"

#include "tallyra/ITYDataCollector.h"

#include <optional>
#include <string>
#include <vector>

/// What is known of the content that plays: the application's description comes before what the
/// stream tells. Passes on to the collector what changes during a playback.
///
/// Title and URL are never empty, and the URL never changes during a playback: the library
/// requires that.
///
/// Threads: one.
class CTYGstContent {
  public:
    explicit CTYGstContent(ITYDataCollector& collector) : m_Collector(collector) {}

    /// Forgets what the stream told of the last content.
    void Forget();
    /// Describes the next content to the collector.
    /// @param uri        with all its parts; only those without secrets are reported
    /// @param startTime  position at which it starts
    void Begin(const std::string& uri, int startTime);
    /// The playback has ended; its description is forgotten.
    void End() { m_bUnderWay = false; }

    void Describe(const TYDescription& description);
    void SetTags(const TYTags& tags);
    void SetProtection(const TYProtection& protection);
    void SetSample(const TYSample& sample);

    const std::string& GetUri() const { return m_strUri; }
    /// @return milliseconds, 0 if unknown
    int GetDuration() const;

  private:
    const TYDescription& Described() const;
    std::string Title() const;
    std::string Url() const;
    int ContentType() const;
    int DrmType() const;
    void SendContentInfo();
    void SendChanges();

    ITYDataCollector& m_Collector;

    std::vector<TYDescription> m_Waiting;  ///< of contents that have not started
    std::optional<TYDescription> m_Described;
    std::string m_strUri;
    int m_nStartTime = 0;
    bool m_bUnderWay = false;
    std::string m_strTagTitle;
    std::string m_strTagGenre;
    int m_nStreamDuration = 0;
    int m_nStreamDrm = kGstUnknown;
    bool m_bFedLive = false;
    bool m_bAdaptive = false;
    // As reported last.
    int m_nSentDuration = 0;
    int m_nSentType = 0;
    int m_nSentDrm = 0;
};

#endif  // TALLYRA_GST_TYGSTCONTENT_H
