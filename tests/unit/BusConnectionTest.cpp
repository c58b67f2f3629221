// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYBusConnection.h"

#include "Fixtures.h"
#include "TYBusNames.h"
#include "TYDbusError.h"

using std::chrono::milliseconds;
using testing::Each;
using testing::ElementsAre;
using testing::Pair;

namespace {

constexpr const char* kClosed = "Connection is closed";
constexpr const char* kNoReply = "Did not receive a reply.";

DBusMessage* NewSignal(bool withDescriptor) {
    DBusMessage* pSignal = dbus_message_new_signal("/noise", "org.example.Noise", "Noise");
    const int fd = STDIN_FILENO;
    if (withDescriptor) {
        dbus_message_append_args(pSignal, DBUS_TYPE_UNIX_FD, &fd, DBUS_TYPE_INVALID);
    }
    return pSignal;
}

/// A connection to a fake bus, on which only waiting makes time pass.
class CBusConnectionTest : public CSeamTest {
  protected:
    CBusConnectionTest() {
        m_Bus.onWait = [this](milliseconds time) { m_Clock.Advance(time); };
    }

    bool Open() {
        CTYDbusError error;
        DBusConnection* pConnection = m_Connection.Open(error.Get());
        m_strError = error.IsSet() ? error.Message() : "";
        return pConnection != nullptr;
    }

    bool LookForOwner() { return m_Connection.NameHasOwner("the.service"); }

    /// Calls "Kick" on the service.
    bool Call(int timeoutMs = 3000) {
        const TYMessagePtr call = m_Connection.NewMethodCall(
            TYBusNames::kService, TYBusNames::kPath, TYBusNames::kInterface, TYBusNames::kMethod);
        CFakeBus::Append(call.get(), {0, 1, "Kick"});
        CTYDbusError error;
        m_Reply = m_Connection.Call(call.get(), timeoutMs, error.Get());
        m_strError = error.IsSet() ? error.Message() : "";
        return m_Reply != nullptr;
    }

    /// @return how much time passed since the last call
    milliseconds TakeTime() {
        const auto begin = std::exchange(m_Begin, m_Clock.SteadyNow());
        return std::chrono::duration_cast<milliseconds>(m_Begin - begin);
    }

    /// @return how many connections were closed, and how many given back
    auto Closed() { return std::pair(m_Bus.Count("Close"), m_Bus.Count("Unref")); }

    CTYBusConnection m_Connection{m_Bus, m_Clock};
    TYMessagePtr m_Reply;
    std::string m_strError;
    ITYClock::TimePoint m_Begin = m_Clock.SteadyNow();
};

TEST_F(CBusConnectionTest, OpensWithAHelloAndLeavesSigpipeAlone) {
    EXPECT_TRUE(Open());
    EXPECT_THAT(m_Bus.Journal(), ElementsAre("SetChangeSigpipe false", "OpenPrivate",
                                             "SetChangeSigpipe true", "Send", "Hello"));
    EXPECT_TRUE(LookForOwner());
    const auto calls = m_Bus.BusCalls();
    for (const CFakeBus::Call& call : calls) {
        EXPECT_EQ(call.destination + " " + call.path + " " + call.interface,
                  "org.freedesktop.DBus /org/freedesktop/DBus org.freedesktop.DBus");
    }
    EXPECT_THAT(calls.at(1).arguments, ElementsAre(CFakeBus::Argument("the.service")));
    m_Bus.SetOwner(false);
    EXPECT_FALSE(LookForOwner());
}

TEST_F(CBusConnectionTest, ConnectingToASilentBusTimesOutAndGivesTheConnectionBack) {
    m_Bus.SetSilent(true);
    EXPECT_FALSE(Open());
    EXPECT_EQ(TakeTime(), milliseconds(3000));
    EXPECT_THAT(m_strError, testing::StartsWith(kNoReply));
    EXPECT_THAT(Closed(), Pair(1, 1));
}

TEST_F(CBusConnectionTest, StalledHandshakeTimesOutInShortSlices) {
    m_Bus.handshakeStalls = true;
    EXPECT_FALSE(Open());
    EXPECT_EQ(TakeTime(), milliseconds(3000));
    EXPECT_THAT(m_Bus.Waits(), Each(100));
    EXPECT_THAT(Closed(), Pair(1, 1));
}

TEST_F(CBusConnectionTest, EveryCallOfASilentBusTimesOut) {
    ASSERT_TRUE(Open());
    m_Bus.SetSilent(true);
    EXPECT_FALSE(LookForOwner());
    EXPECT_EQ(TakeTime(), milliseconds(3000));
    for (const auto& [timeoutMs, waited] :
         {std::pair(3000, 3000), {200, 200}, {1, 1}, {-1, 25000}}) {
        EXPECT_FALSE(Call(timeoutMs));
        EXPECT_EQ(TakeTime(), milliseconds(waited));
        EXPECT_THAT(m_strError, testing::StartsWith(kNoReply));
    }
}

TEST_F(CBusConnectionTest, ReplyIsTakenUpToTheDeadline) {
    ASSERT_TRUE(Open());
    for (const int after : {0, 1, 2999, 3000, 3001, 9000}) {
        SCOPED_TRACE(after);
        m_Bus.SetReply("Kick", {{0, 0, 1}, "", "", milliseconds(after)});
        EXPECT_EQ(Call(), after <= 3000);
        EXPECT_EQ(TakeTime(), milliseconds(std::min(after, 3000)));
    }
}

TEST_F(CBusConnectionTest, LateReplyIsDroppedWithTheNextCallAndNotTakenForItsOwn) {
    ASSERT_TRUE(Open());
    m_Bus.SetReply("Kick", {{0, 0, 1}, "", "", milliseconds(3001)});
    EXPECT_FALSE(Call());
    CFakeBus::Reply later = CFakeBus::Status(1, 9);
    later.after = milliseconds(2);
    m_Bus.SetReply("Kick", later);
    EXPECT_TRUE(Call());
    EXPECT_EQ(CFakeBus::Read(m_Reply.get()), later.body);
    EXPECT_FALSE(m_Bus.HasPending());
}

/// A silent bus that answers when the host has looked for the reply after the deadline.
class CLateBus : public CFakeBus {
  public:
    DBusMessage* PopMessage(DBusConnection* pConnection) override {
        DBusMessage* pMessage = CFakeBus::PopMessage(pConnection);
        SetSilent(IsConnected(pConnection) && pMessage == nullptr && Waits().empty());
        return pMessage;
    }
};

// As background applications are stopped, and go on much later.
TEST_F(CBusConnectionTest, ReplyThatArrivedWhileTheHostWasStoppedIsTaken) {
    CLateBus bus;
    CTYBusConnection connection(bus, m_Clock);
    bus.onWait = [this](milliseconds /*time*/) { m_Clock.Advance(std::chrono::hours(1)); };
    CTYDbusError error;
    EXPECT_NE(connection.Open(error.Get()), nullptr);
}

TEST_F(CBusConnectionTest, MessageThatAFullSocketDidNotTakeIsWrittenBeforeTheNext) {
    ASSERT_TRUE(Open());
    m_Bus.SetFull(true);
    const std::size_t sent = m_Bus.Count("Send");
    for (int call = 0; call < 3; ++call) {
        EXPECT_FALSE(Call());
        EXPECT_EQ(TakeTime(), milliseconds(3000));
    }
    EXPECT_EQ(m_Bus.Count("Send"), sent + 1);
    m_Bus.SetFull(false);
    EXPECT_TRUE(Call());
    EXPECT_EQ(m_Bus.Calls("Kick").size(), 2U);
    EXPECT_FALSE(m_Bus.HasPending());
}

TEST_F(CBusConnectionTest, SendingAndTheReplyShareOneDeadline) {
    ASSERT_TRUE(Open());
    m_Bus.SetFull(true);
    EXPECT_FALSE(Call());
    EXPECT_EQ(TakeTime(), milliseconds(3000));
    m_Bus.onWait = [this](milliseconds time) {
        m_Bus.SetFull(false);
        m_Clock.Advance(std::min(time, milliseconds(2000)));
    };
    m_Bus.SetReply("Kick", CFakeBus::Reply::Never());
    EXPECT_FALSE(Call());
    EXPECT_EQ(TakeTime(), milliseconds(3000));
}

TEST_F(CBusConnectionTest, StrayMessagesAreDroppedWithTheirDescriptors) {
    ASSERT_TRUE(Open());
    const int freeFd = FreeFd();
    for (int i = 0; i < 10; ++i) {
        m_Bus.Push(NewSignal(i % 2 == 0));
    }
    EXPECT_TRUE(Call());
    EXPECT_FALSE(m_Bus.HasPending());
    EXPECT_EQ(FreeFd(), freeFd);
}

TEST_F(CBusConnectionTest, AllocationFailureWhileConnectingGivesTheConnectionBack) {
    const struct {
        const char* operation;
        const char* error;
        std::size_t closed;
    } cases[] = {{"OpenPrivate", "no memory", 0},
                 {"NewMethodCall", "no memory for a call of the bus", 1},
                 {"Send", "no memory for a call", 2},
                 {"SetUniqueName", "no memory for the unique name", 3}};
    for (const auto& each : cases) {
        SCOPED_TRACE(each.operation);
        m_Bus.failing = {each.operation};
        EXPECT_FALSE(Open());
        EXPECT_EQ(m_strError, each.error);
        EXPECT_THAT(Closed(), Pair(each.closed, each.closed));
    }
}

TEST_F(CBusConnectionTest, AllocationFailureInACallFailsThatCallAlone) {
    ASSERT_TRUE(Open());
    for (const char* operation : {"NewMethodCall", "AppendString", "Send"}) {
        SCOPED_TRACE(operation);
        m_Bus.failing = {operation};
        EXPECT_FALSE(LookForOwner());
        m_Bus.failing.clear();
        EXPECT_TRUE(LookForOwner());
    }
    m_Bus.failing = {"Send"};
    EXPECT_FALSE(Call());
    EXPECT_EQ(m_strError, "no memory for a call");
    m_Bus.failing.clear();
    EXPECT_TRUE(Call());
}

TEST_F(CBusConnectionTest, BusThatDiesFailsTheCallUnderWayAndAllLaterOnesAtOnce) {
    ASSERT_TRUE(Open());
    m_Bus.SetSilent(true);
    m_Bus.onWait = [this](milliseconds /*time*/) { m_Bus.Disconnect(); };
    for (int call = 0; call < 2; ++call) {
        EXPECT_FALSE(Call());
        EXPECT_EQ(TakeTime(), milliseconds(0));
        EXPECT_EQ(m_strError, kClosed);
    }
    EXPECT_FALSE(LookForOwner());
}

class CLostSocketTest : public CBusConnectionTest,
                        public testing::WithParamInterface<CFakeBus::Loss> {};

TEST_P(CLostSocketTest, IsNeitherUsedNorClosed) {
    ASSERT_TRUE(Open());
    const std::size_t sent = m_Bus.Count("Send");
    m_Bus.LoseSockets(GetParam());
    EXPECT_FALSE(Call());
    EXPECT_EQ(m_strError, kClosed);
    EXPECT_FALSE(LookForOwner());
    m_Bus.Push(NewSignal(false));
    m_Connection.Close();
    EXPECT_EQ(m_Bus.Count("Send"), sent);
    EXPECT_EQ(m_Bus.Waits().size(), 0U);
    EXPECT_TRUE(m_Bus.HasPending());
    EXPECT_THAT(Closed(), Pair(0, 0));
}

TEST_P(CLostSocketTest, FailsTheCallUnderWayAtOnce) {
    ASSERT_TRUE(Open());
    m_Bus.SetSilent(true);
    m_Bus.onWait = [this](milliseconds /*time*/) { m_Bus.LoseSockets(GetParam()); };
    EXPECT_FALSE(Call());
    EXPECT_EQ(TakeTime(), milliseconds(0));
    EXPECT_EQ(m_strError, kClosed);
}

TEST_P(CLostSocketTest, WhileConnectingKeepsTheConnectionInMemory) {
    m_Bus.handshakeStalls = true;
    m_Bus.onWait = [this](milliseconds /*time*/) { m_Bus.LoseSockets(GetParam()); };
    EXPECT_FALSE(Open());
    EXPECT_EQ(m_strError, kClosed);
    EXPECT_THAT(Closed(), Pair(0, 0));
}

INSTANTIATE_TEST_SUITE_P(Each, CLostSocketTest,
                         testing::Values(CFakeBus::Loss::Reused, CFakeBus::Loss::Closed));

TEST_F(CBusConnectionTest, ClosingReadsAndDropsDescriptorsFirst) {
    ASSERT_TRUE(Open());
    const int freeFd = FreeFd();
    m_Bus.Push(NewSignal(true));
    m_Connection.Close();
    EXPECT_EQ(FreeFd(), freeFd);
    EXPECT_THAT(m_Bus.Waits(), ElementsAre(5));  // for the rest of a message
    EXPECT_THAT(Closed(), Pair(1, 0));
}

TEST_F(CBusConnectionTest, ClosingWaitsForNothingWithoutDescriptors) {
    ASSERT_TRUE(Open());
    m_Bus.Push(NewSignal(false));
    m_Connection.Close();
    EXPECT_EQ(TakeTime(), milliseconds(0));
    EXPECT_THAT(Closed(), Pair(1, 0));
}

TEST_F(CBusConnectionTest, ClosingUnderAFloodTakesATenthOfASecond) {
    ASSERT_TRUE(Open());
    m_Bus.Push(NewSignal(true));
    m_Bus.onWait = [this](milliseconds time) {
        m_Clock.Advance(time);
        m_Bus.Push(NewSignal(true));
    };
    m_Connection.Close();
    EXPECT_EQ(TakeTime(), milliseconds(100));
    EXPECT_THAT(Closed(), Pair(1, 0));
}

TEST_F(CBusConnectionTest, CallBlocksTheHostsSignalsAndNoFault) {
    ASSERT_TRUE(Open());
    sigset_t inside;
    m_Bus.onCall = [&](const CFakeBus::Call& /*call*/) {
        pthread_sigmask(SIG_BLOCK, nullptr, &inside);
    };
    EXPECT_TRUE(Call());
    sigset_t outside;
    pthread_sigmask(SIG_BLOCK, nullptr, &outside);
    EXPECT_EQ(sigismember(&inside, SIGALRM), 1);
    EXPECT_EQ(sigismember(&inside, SIGSEGV), 0);
    EXPECT_EQ(sigismember(&outside, SIGALRM), 0);
}

}  // namespace
