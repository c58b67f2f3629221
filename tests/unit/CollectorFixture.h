// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_UNIT_COLLECTORFIXTURE_H
#define TALLYRA_TESTS_UNIT_COLLECTORFIXTURE_H

#include "Fixtures.h"
#include "TYDataCollector.h"

#include <memory>
#include <string>
#include <vector>

/// A collector over doubles. The service is present and accepts everything.
class CCollectorTest : public CSeamTest {
  protected:
    CCollectorTest() { m_Clock.SetRealTime(kNow, 5); }

    /// Constructs a collector, without waiting for its connection.
    void MakeCollector(const char* appId = "org.example.app");
    /// @return the collector; the first call constructs it and waits until it collects
    CTYDataCollector& Collector();
    /// Constructs a collector whose service is absent, and waits until it sleeps before its next
    /// poll.
    CTYDataCollector& CollectorWithoutService();
    /// Constructs a collector that is told not to collect, and waits until it has stopped.
    CTYDataCollector& CollectorThatStops();

    /// Sets content with a URL and a title.
    void SetContent(const std::string& url = "film.mp4", const std::string& title = "Film",
                    unsigned startTime = 0);
    /// Sets content that fills every field of a record.
    void SetFullContent();
    /// Sets content and reports START.
    void StartPlayback(unsigned startTime = 0);
    /// Starts a playback and reports its first frame, so that positions are recorded.
    void StartRendering();

    void Event(int event, int param1 = 0, int param2 = 0) {
        Collector().SendMediaEvent(static_cast<TY_EVENT_TYPE>(event), param1, param2);
    }
    void ReportAll(const Reports& reports);

    /// Deletes the collector, which delivers everything.
    /// @return the records that arrived, without those that the analyzer derived
    std::vector<TYMediaData> Reported();
    /// The same, events and parameters only.
    Reports ReportedEvents() { return ToReports(Reported()); }

    static constexpr int kNow = 1000000;
    std::unique_ptr<CTYDataCollector> m_pCollector;
};

#endif  // TALLYRA_TESTS_UNIT_COLLECTORFIXTURE_H
