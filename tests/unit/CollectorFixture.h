// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_UNIT_COLLECTORFIXTURE_H
#define TALLYRA_TESTS_UNIT_COLLECTORFIXTURE_H

#include "Fixtures.h"
#include "TYDataCollector.h"

#include <memory>
#include <string>
#include <vector>

/// A collector over doubles, whose service is there and takes everything.
class CCollectorTest : public CSeamTest {
  protected:
    CCollectorTest() { m_Clock.SetRealTime(1000000, 5); }

    /// Makes the collector, after the doubles were set up, and waits until it collects.
    CTYDataCollector& Collector();

    /// Makes a collector whose service is absent; it waits for the next poll.
    CTYDataCollector& CollectorWithoutService();

    /// Sets content with a URL and a title.
    void SetContent(const std::string& url = "film.mp4", const std::string& title = "Film",
                    unsigned startTime = 0);

    /// Sets content that fills every field of a record.
    void SetFullContent();

    /// Sets content and reports START.
    void StartPlayback(unsigned startTime = 0);

    /// Starts a playback in which positions are reported.
    void StartRendering();

    void Event(int event, int param1 = 0, int param2 = 0) {
        Collector().SendMediaEvent(static_cast<TY_EVENT_TYPE>(event), param1, param2);
    }

    /// Deletes the collector, which delivers everything.
    /// @return what was sent, without what the analyzer derived
    std::vector<TYMediaData> Reported();
    /// The same, as "event param1 param2".
    std::vector<std::string> ReportedTexts();

    std::unique_ptr<CTYDataCollector> m_pCollector;
};

#endif  // TALLYRA_TESTS_UNIT_COLLECTORFIXTURE_H
