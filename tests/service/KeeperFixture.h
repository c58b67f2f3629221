// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SERVICE_KEEPERFIXTURE_H
#define TALLYRA_TESTS_SERVICE_KEEPERFIXTURE_H

#include "StoreFixture.h"
#include "TYStoreKeeper.h"
#include "doubles/PlatformDouble.h"

#include <string>
#include <vector>

/// A keeper with a file of its own, a clock that the test moves, and the lines that it logs.
class CKeeperTest : public CStoreTest {
  protected:
    CKeeperTest() { m_Platform.Reset(); }

    /// @return the lines logged with this priority or a higher one
    std::vector<std::string> Lines(int priority = LOGSVC_DEBUG) {
        std::vector<std::string> texts;
        for (const CPlatformDouble::LogLine& line : m_Platform.Log()) {
            if (line.priority >= priority) {
                texts.push_back(line.text);
            }
        }
        return texts;
    }
    std::vector<std::string> Errors() { return Lines(LOGSVC_ERROR); }

    /// @return a batch that needs more than a few pages
    static TYBatch BigBatch() {
        TYBatch batch = BatchOf("p1");
        batch.urls[0] = std::string(100'000, 'u');
        return batch;
    }

    CPlatformDouble& m_Platform = CPlatformDouble::Instance();
    CTYStoreKeeper::Clock::time_point m_Now{std::chrono::hours(1000)};
    CTYStoreKeeper m_Keeper{m_File, {}, [this] { return m_Now; }};
};

#endif  // TALLYRA_TESTS_SERVICE_KEEPERFIXTURE_H
