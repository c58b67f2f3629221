// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_UNIT_SENDERFIXTURE_H
#define TALLYRA_TESTS_UNIT_SENDERFIXTURE_H

#include "Fixtures.h"
#include "TYDataSender.h"
#include "tallyra/TYTypes.h"

#include <memory>
#include <string>

/// A sender over a fake bus and a fake clock, without a thread until a test starts it.
class CSenderTest : public CSeamTest {
  protected:
    // A sender does not free what is still queued when it goes.
    ~CSenderTest() override {
        if (m_Sender != nullptr) {
            m_Sender->StopConnectionCheck();
            m_Sender->ClearCollectedData();
        }
    }

    /// Queues records that are numbered on in param1.
    void Queue(int records, int event = TY_EVENT_RESUME, const std::string& url = "film.mp4") {
        for (int i = 0; i < records; ++i) {
            m_Sender->InsertData(NewRecord(event, m_nQueued++, 0, url));
        }
    }

    /// @return whether the sender's thread sleeps: from now on it hears every notification
    bool Sleeps() { return m_Clock.AwaitWaiter(std::chrono::seconds(20)); }

    /// Starts the thread and waits until it sleeps.
    void StartAndSleep() {
        m_Sender->Start();
        ASSERT_TRUE(Sleeps());
    }

    /// @return whether the thread was notified within a time; the fake clock does not move
    /// meanwhile
    bool Wakes(std::chrono::milliseconds within = kPatience) {
        return m_Platform.WaitForLog("CTYDataSender thread wake up!!", 1, within);
    }

    testing::AssertionResult Says(const std::string& text) {
        return Logged(LOGSVC_DEBUG, kTagUtil, text);
    }

    std::unique_ptr<CTYDataSender> m_Sender = std::make_unique<CTYDataSender>(m_Bus, m_Clock);
    int m_nQueued = 0;
};

#endif  // TALLYRA_TESTS_UNIT_SENDERFIXTURE_H
