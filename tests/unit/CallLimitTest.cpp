// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"
#include "TYDbusClient.h"

#include <utility>

using namespace std::chrono_literals;

namespace {

/// The time limit that all calls of a client that is about to go have together.
class CCallLimitTest : public CSeamTest {
  protected:
    bool Call() {
        std::vector<CDbusValue> arguments;
        std::vector<CDbusValue> reply;
        return m_Client.SendMessage("Kick", arguments, reply);
    }

    bool CallThatTakes(std::chrono::milliseconds time) {
        m_Bus.onCall = [this, time](const CFakeBus::Call& /*call*/) { m_Clock.Advance(time); };
        const bool answered = Call();
        m_Bus.onCall = {};
        return answered;
    }

    void WaitInVain(std::chrono::milliseconds time) {
        m_Bus.SetReply("Kick", {{}, DBUS_ERROR_NO_REPLY});
        EXPECT_FALSE(CallThatTakes(time));
        m_Bus.SetReply("Kick", CFakeBus::Status(1, 1));
    }

    /// @return the time that the last call was given, in milliseconds
    int LastTime() { return m_Bus.Calls("Kick").back().timeoutMs; }

    CDbusClient m_Client{"the.client", "the.service", m_Bus, m_Clock};
};

TEST_F(CCallLimitTest, IsNoneUntilItIsSet) {
    m_Clock.Advance(24h);
    EXPECT_TRUE(Call());
    EXPECT_EQ(LastTime(), 3000);
}

TEST_F(CCallLimitTest, LeavesACallWhatOthersLeaveOfIt) {
    m_Client.LimitCallsToCome(3s);
    WaitInVain(1s);
    WaitInVain(1999ms);
    EXPECT_EQ(LastTime(), 2000);
    EXPECT_TRUE(Call());
    EXPECT_EQ(LastTime(), 1);
}

TEST_F(CCallLimitTest, IsNotUsedUpByCallsThatAreAnswered) {
    m_Client.LimitCallsToCome(3s);
    for (int call = 0; call < 10; ++call) {
        EXPECT_TRUE(CallThatTakes(2s));
        EXPECT_EQ(LastTime(), 3000);
    }
}

TEST_F(CCallLimitTest, IsNotUsedUpBetweenCalls) {
    m_Client.LimitCallsToCome(3s);
    EXPECT_TRUE(Call());
    m_Clock.Advance(1h);
    EXPECT_TRUE(Call());
    EXPECT_EQ(LastTime(), 3000);
}

TEST_F(CCallLimitTest, CountsOfTheCallUnderWayWhatFollows) {
    m_Bus.onCall = [this, first = true](const CFakeBus::Call& /*call*/) mutable {
        if (std::exchange(first, false)) {
            m_Clock.Advance(2s);
            m_Client.LimitCallsToCome(3s);
            m_Clock.Advance(1s);
        }
    };
    m_Bus.SetReply("Kick", {{}, DBUS_ERROR_NO_REPLY});
    EXPECT_FALSE(Call());
    EXPECT_FALSE(Call());
    EXPECT_EQ(LastTime(), 2000);
}

TEST_F(CCallLimitTest, DoesNotLengthenAShorterTimeout) {
    m_Client.SetTimeoutMs(200);
    m_Client.LimitCallsToCome(3s);
    EXPECT_TRUE(Call());
    EXPECT_EQ(LastTime(), 200);
}

TEST_F(CCallLimitTest, BoundsTheDefaultTimeoutToo) {
    m_Client.SetTimeoutMs(-1);
    m_Client.LimitCallsToCome(3s);
    EXPECT_TRUE(Call());
    EXPECT_EQ(LastTime(), 3000);
}

TEST_F(CCallLimitTest, LetsNoCallOutWhenItIsOver) {
    m_Client.LimitCallsToCome(3s);
    WaitInVain(3s);
    EXPECT_FALSE(Call());
    EXPECT_EQ(m_Bus.Count("SendWithReplyAndBlock"), 1U);
    EXPECT_TRUE(Logged(LOGSVC_ERROR, TAG, "no time is left, [Kick] is not called"));
}

}  // namespace
