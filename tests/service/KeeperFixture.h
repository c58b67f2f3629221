// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SERVICE_KEEPERFIXTURE_H
#define TALLYRA_TESTS_SERVICE_KEEPERFIXTURE_H

#include "Samples.h"
#include "TYStoreKeeper.h"
#include "TemporaryFolder.h"
#include "doubles/PlatformDouble.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

/// A keeper with a file of its own and a clock that the test moves.
class CKeeperTest : public testing::Test {
  protected:
    CKeeperTest() { m_Platform.Reset(); }

    /// @return what was logged, in order
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

    std::int64_t Stored() const {
        return CFileReader(m_File).Number("SELECT count(*) FROM records");
    }

    /// @return a batch that needs more room than a few pages
    static TYBatch BigBatch() {
        TYBatch batch = BatchOf("p1");
        batch.urls[0] = std::string(100'000, 'u');
        return batch;
    }

    CPlatformDouble& m_Platform = CPlatformDouble::Instance();
    CTemporaryFolder m_Folder;
    const std::filesystem::path m_File = m_Folder.Path() / "t.db";
    CTYStoreKeeper::Clock::time_point m_Now{std::chrono::hours(1000)};
    CTYStoreKeeper m_Keeper{m_File, {}, [this] { return m_Now; }};
};

#endif  // TALLYRA_TESTS_SERVICE_KEEPERFIXTURE_H
