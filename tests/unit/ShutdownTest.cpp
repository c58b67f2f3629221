// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"
#include "TYDbusClient.h"

namespace {

/// A client whose owner is about to go.
class CShutdownTest : public CSeamTest {
  protected:
    bool Call() {
        std::vector<CDbusValue> arguments;
        std::vector<CDbusValue> reply;
        return m_Client.SendMessage("Kick", arguments, reply);
    }

    void FallSilent() { m_Bus.SetReply("Kick", {{}, "no answer"}); }
    void Answer() { m_Bus.SetReply("Kick", CFakeBus::Status(1, 1)); }

    CDbusClient m_Client{"the.client", "the.service", m_Bus};
};

TEST_F(CShutdownTest, FirstCallWithoutAReplyIsTheLastOneMade) {
    m_Client.BeginShutdown();
    FallSilent();
    EXPECT_FALSE(Call());
    Answer();
    EXPECT_FALSE(Call());
    EXPECT_EQ(m_Bus.Calls("Kick").size(), 1U);
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTag, "shutting down without a reply, [Kick] is not called"));
}

TEST_F(CShutdownTest, CallThatIsUnderWayCounts) {
    FallSilent();
    m_Bus.onCall = [this](const CFakeBus::Call& /*call*/) { m_Client.BeginShutdown(); };
    EXPECT_FALSE(Call());
    EXPECT_FALSE(Call());
    EXPECT_EQ(m_Bus.Calls("Kick").size(), 1U);
}

TEST_F(CShutdownTest, EarlierCallWithoutAReplyDoesNotCount) {
    FallSilent();
    EXPECT_FALSE(Call());
    m_Client.BeginShutdown();
    Answer();
    EXPECT_TRUE(Call());
}

TEST_F(CShutdownTest, ServiceThatAnswersGetsEverything) {
    m_Client.BeginShutdown();
    for (int call = 0; call < 10; ++call) {
        EXPECT_TRUE(Call());
    }
    EXPECT_EQ(m_Bus.Calls("Kick").back().timeoutMs, 3000);
}

// An error is an answer, and comes at once.
TEST_F(CShutdownTest, ServiceThatAnswersWithAnErrorIsAskedAgain) {
    m_Client.BeginShutdown();
    m_Bus.SetReply("Kick", {{}, "who?", DBUS_ERROR_SERVICE_UNKNOWN});
    EXPECT_FALSE(Call());
    Answer();
    EXPECT_TRUE(Call());
}

}  // namespace
