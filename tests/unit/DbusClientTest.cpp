// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"
#include "TYDbusClient.h"

#include <gmock/gmock.h>

#include <atomic>
#include <thread>

using testing::ElementsAre;

namespace {

constexpr const char* kFileName = "TYDbusClient.cpp";

/// A bus that notes what CFakeBus does not: an order, who is inside, and a reply that is not there.
class CWatchedBus : public CFakeBus {
  public:
    bool InitThreads() override {
        connectionsBeforeThreads = Count("GetPrivate");
        return CFakeBus::InitThreads();
    }

    bool NameHasOwner(DBusConnection* pConnection, const char* pName) override {
        const CInside inside(*this);
        ownerAskedFor = pName;
        return CFakeBus::NameHasOwner(pConnection, pName);
    }

    DBusMessage* SendWithReplyAndBlock(DBusConnection* pConnection, DBusMessage* pMessage,
                                       int timeoutMs, DBusError* pError) override {
        const CInside inside(*this);
        return noReply ? nullptr
                       : CFakeBus::SendWithReplyAndBlock(pConnection, pMessage, timeoutMs, pError);
    }

    std::size_t connectionsBeforeThreads = 99;
    std::string ownerAskedFor;
    bool noReply = false;
    std::atomic<int> mostInside{0};

  private:
    /// Counts a call that is under way, and gives others every chance to come in too.
    class CInside {
      public:
        explicit CInside(CWatchedBus& bus) : m_Bus(bus) {
            const int now = ++m_Bus.m_nInside;
            for (int most = m_Bus.mostInside;
                 most < now && !m_Bus.mostInside.compare_exchange_weak(most, now);) {
            }
            for (int i = 0; i < 20; ++i) {
                std::this_thread::yield();
            }
        }
        ~CInside() { --m_Bus.m_nInside; }
        CInside(const CInside&) = delete;
        CInside& operator=(const CInside&) = delete;

      private:
        CWatchedBus& m_Bus;
    };

    std::atomic<int> m_nInside{0};
};

class CDbusClientTest : public CPlatformTest {
  protected:
    /// Makes the client, after the bus was set up.
    CDbusClient& Client() {
        if (m_pClient == nullptr) {
            m_pClient = std::make_unique<CDbusClient>("the.client", "the.service", m_Bus);
        }
        return *m_pClient;
    }

    bool Send(const CFakeBus::Reply& reply) {
        m_Bus.SetReply("Do", reply);
        return Client().SendMessage("Do", m_Arguments, m_Reply);
    }

    testing::AssertionResult ErrorAt(const char* function, int line, const std::string& text) {
        return LoggedAt(LOGSVC_ERROR, kTag, kFileName, function, line, text);
    }

    CWatchedBus m_Bus;
    std::vector<CDbusValue> m_Arguments;
    std::vector<CDbusValue> m_Reply;
    std::unique_ptr<CDbusClient> m_pClient;
};

TEST_F(CDbusClientTest, ConnectsOnceWithThreadsMadeSafeFirst) {
    Client();
    EXPECT_EQ(m_Bus.Count("InitThreads"), 1U);
    EXPECT_EQ(m_Bus.Count("GetPrivate"), 1U);
    EXPECT_EQ(m_Bus.connectionsBeforeThreads, 0U);
    EXPECT_TRUE(LoggedAt(LOGSVC_INFO, kTag, kFileName, "CDbusClient", 29,
                         "hello> Dbus session [the.client] -> [the.service]"));
}

TEST_F(CDbusClientTest, ClosesItsConnectionWhenItGoes) {
    Client();
    m_pClient.reset();
    EXPECT_EQ(m_Bus.Count("Close"), 1U);
    EXPECT_TRUE(
        LoggedAt(LOGSVC_INFO, kTag, kFileName, "~CDbusClient", 45, "bye> terminal dbus client"));
}

TEST_F(CDbusClientTest, FailedConnectionIsLoggedAndNothingTouchesTheBus) {
    m_Bus.connectError = "no bus here";
    EXPECT_FALSE(Client().IsConnected());
    EXPECT_FALSE(Client().IsReady());
    EXPECT_FALSE(Send(CFakeBus::Status(1, 1)));
    m_pClient.reset();
    EXPECT_TRUE(ErrorAt("CDbusClient", 25, "Dbus connection failed: no bus here"));
    EXPECT_EQ(m_Platform.CountLog("Connection is not ready. should re-create CDbusClient"), 2U);
    for (const char* operation :
         {"NameHasOwner", "NewMethodCall", "SendWithReplyAndBlock", "Close"}) {
        EXPECT_EQ(m_Bus.Count(operation), 0U) << operation;
    }
}

TEST_F(CDbusClientTest, UnreadyClientSaysSoAtItsFixedPlace) {
    m_Bus.connectNull = true;
    EXPECT_FALSE(Client().IsConnected());
    EXPECT_TRUE(
        ErrorAt("IsConnected", 54, "Connection is not ready. should re-create CDbusClient"));
}

TEST_F(CDbusClientTest, UnreadyClientRefusesACallAndHasNoNames) {
    m_Bus.connectError = "no bus here";
    EXPECT_FALSE(Send(CFakeBus::Status(1, 1)));
    EXPECT_TRUE(
        LoggedAt(LOGSVC_DEBUG, kTag, kFileName, "SendMessage", 84, "> path = [], method = []"));
    EXPECT_TRUE(Logged(LOGSVC_DEBUG, kTag, "no connection, [Do] is not called"));
    EXPECT_TRUE(m_Reply.empty());
}

TEST_F(CDbusClientTest, NoConnectionAndNoErrorIsNotReadyEither) {
    m_Bus.connectNull = true;
    EXPECT_FALSE(Send(CFakeBus::Status(1, 1)));
    EXPECT_FALSE(Client().IsReady());
    m_pClient.reset();
    EXPECT_TRUE(Logged(LOGSVC_INFO, kTag, "hello> Dbus session [the.client] -> [the.service]"));
    EXPECT_EQ(m_Bus.Count("SendWithReplyAndBlock"), 0U);
    EXPECT_EQ(m_Bus.Count("Close"), 0U);
}

TEST_F(CDbusClientTest, ReadinessIsInTheSlotBehindTheDestructor) {
    CDbusPort* pPort = &Client();
    void* pFunction = (*reinterpret_cast<void***>(pPort))[2];
    const auto isReady = reinterpret_cast<bool (*)(CDbusPort*)>(pFunction);
    EXPECT_TRUE(isReady(pPort));
    m_Bus.SetOwner(false);
    EXPECT_FALSE(isReady(pPort));
}

TEST_F(CDbusClientTest, ConnectedMeansThatTheServiceOwnsItsName) {
    EXPECT_TRUE(Client().IsConnected());
    EXPECT_EQ(m_Bus.ownerAskedFor, "the.service");
    m_Bus.SetOwner(false);
    EXPECT_FALSE(Client().IsReady());
    EXPECT_TRUE(
        LoggedAt(LOGSVC_DEBUG, kTag, kFileName, "IsConnected", 62, "IsConnected returns 1"));
    EXPECT_TRUE(
        LoggedAt(LOGSVC_DEBUG, kTag, kFileName, "IsConnected", 62, "IsConnected returns 0"));
}

TEST_F(CDbusClientTest, TimeoutTakesMinusOneAndWhatIsPositive) {
    const auto timeout = [this] {
        Send(CFakeBus::Status(1, 1));
        return m_Bus.Calls().back().timeoutMs;
    };
    EXPECT_EQ(timeout(), 3000);
    EXPECT_FALSE(Client().SetTimeoutMs(0));
    EXPECT_FALSE(Client().SetTimeoutMs(-2));
    EXPECT_EQ(timeout(), 3000);
    EXPECT_TRUE(Client().SetTimeoutMs(-1));
    EXPECT_EQ(timeout(), -1);
    EXPECT_TRUE(Client().SetTimeoutMs(1));
    EXPECT_EQ(timeout(), 1);
}

TEST_F(CDbusClientTest, CallIsAddressedAndItsBodyBeginsWithTheFunction) {
    m_Arguments = {CDbusValue::OfInt(5), CDbusValue::OfString("x")};
    EXPECT_TRUE(Send(CFakeBus::Status(1, 1)));
    const CFakeBus::Call call = m_Bus.Calls().at(0);
    EXPECT_EQ(call.destination, "the.service");
    EXPECT_EQ(call.path, "/org/veltra/tv/tallyra/service");
    EXPECT_EQ(call.interface, "the.client");
    EXPECT_EQ(call.member, "TYCallFunction");
    EXPECT_THAT(call.arguments,
                ElementsAre(CFakeBus::Argument(0), CFakeBus::Argument(1), CFakeBus::Argument("Do"),
                            CFakeBus::Argument(1), CFakeBus::Argument(0), CFakeBus::Argument(5),
                            CFakeBus::Argument(2), CFakeBus::Argument(1), CFakeBus::Argument("x")));
}

TEST_F(CDbusClientTest, CallIsLoggedStepByStep) {
    Send(CFakeBus::Status(1, 1));
    EXPECT_TRUE(LoggedAt(LOGSVC_DEBUG, kTag, kFileName, "SendMessage", 84,
                         "> path = [/org/veltra/tv/tallyra/service], method = [TYCallFunction]"));
    EXPECT_TRUE(LoggedAt(LOGSVC_DEBUG, kTag, kFileName, "SendMessage", 95,
                         "Make Message for method [Do] to [the.service]"));
    EXPECT_TRUE(LoggedAt(LOGSVC_DEBUG, kTag, kFileName, "SendMessage", 108, "send"));
}

TEST_F(CDbusClientTest, StatusAloneDecidesAndIsTakenOutOfTheReply) {
    EXPECT_TRUE(Send({{0, 0, 1}, ""}));
    EXPECT_TRUE(m_Reply.empty());
    EXPECT_FALSE(Send({{0, 0, 0}, ""}));
    EXPECT_TRUE(m_Reply.empty());
    const auto log = m_Platform.Log();
    EXPECT_TRUE(std::none_of(log.begin(), log.end(),
                             [](const auto& line) { return line.priority == LOGSVC_ERROR; }));
}

TEST_F(CDbusClientTest, ValuesBehindTheStatusAreHandedBackInOrder) {
    EXPECT_TRUE(Send({{0, 0, 1, 1, 0, 11, 2, 1, "t"}, ""}));
    ASSERT_EQ(m_Reply.size(), 2U);
    EXPECT_EQ(m_Reply[0].nValue, 11);
    EXPECT_EQ(m_Reply[1].strValue, "t");
}

TEST_F(CDbusClientTest, ValuesBehindAStatusOfZeroAreHandedBackToo) {
    EXPECT_FALSE(Send(CFakeBus::Status(0, 9)));
    ASSERT_EQ(m_Reply.size(), 1U);
    EXPECT_EQ(m_Reply[0].nValue, 9);
}

TEST_F(CDbusClientTest, ReplyThatBeginsWithAStringStaysWhole) {
    EXPECT_FALSE(Send({{0, 1, "text"}, ""}));
    EXPECT_TRUE(ErrorAt("SendMessage", 134, "no api return value"));
    ASSERT_EQ(m_Reply.size(), 1U);
    EXPECT_EQ(m_Reply[0].strValue, "text");
}

TEST_F(CDbusClientTest, EmptyReplyIsLogged) {
    EXPECT_FALSE(Send({{}, ""}));
    EXPECT_TRUE(ErrorAt("SendMessage", 128, "response empty"));
}

TEST_F(CDbusClientTest, BusErrorIsLoggedAndLeavesNoReply) {
    EXPECT_FALSE(Send({{}, "too slow"}));
    EXPECT_TRUE(ErrorAt("SendMessage", 112, "CLIENT > Dbus error: too slow"));
    EXPECT_TRUE(ErrorAt("SendMessage", 119, "REPLY IS NULL!"));
}

TEST_F(CDbusClientTest, ReplyThatIsMissingWithoutAnErrorIsLogged) {
    m_Bus.noReply = true;
    EXPECT_FALSE(Send(CFakeBus::Status(1, 1)));
    EXPECT_TRUE(ErrorAt("SendMessage", 119, "REPLY IS NULL!"));
    const auto log = m_Platform.Log();
    EXPECT_EQ(std::count_if(log.begin(), log.end(),
                            [](const auto& line) { return line.priority == LOGSVC_ERROR; }),
              1);
}

TEST_F(CDbusClientTest, ReplyIsAppendedAndItsListsFirstValueIsTheStatus) {
    m_Reply = {CDbusValue::OfString("old")};
    EXPECT_FALSE(Send(CFakeBus::Status(1, 9)));
    EXPECT_TRUE(ErrorAt("SendMessage", 134, "no api return value"));
    ASSERT_EQ(m_Reply.size(), 3U);
    EXPECT_EQ(m_Reply[0].strValue, "old");
    EXPECT_EQ(m_Reply[2].nValue, 9);
}

TEST_F(CDbusClientTest, StatusOfAWrongTypeIsZero) {
    EXPECT_FALSE(Send({{0, 0, "1"}, ""}));
    EXPECT_TRUE(m_Reply.empty());
}

TEST_F(CDbusClientTest, ArgumentsAreLeftAsTheyWere) {
    m_Arguments = {CDbusValue::OfInt(5), CDbusValue::OfString("x")};
    Send(CFakeBus::Status(1, 1));
    ASSERT_EQ(m_Arguments.size(), 2U);
    EXPECT_EQ(m_Arguments[0].nValue, 5);
    EXPECT_EQ(m_Arguments[1].strValue, "x");
}

TEST_F(CDbusClientTest, CallsOfSeveralThreadsAreMadeOneAfterTheOther) {
    m_Bus.SetReply("Do", CFakeBus::Status(1, 1));
    CDbusClient& client = Client();
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&client] {
            for (int call = 0; call < 50; ++call) {
                std::vector<CDbusValue> none;
                std::vector<CDbusValue> reply;
                EXPECT_TRUE(client.SendMessage("Do", none, reply));
                EXPECT_TRUE(client.IsConnected());
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(m_Bus.Count("SendWithReplyAndBlock"), 200U);
    EXPECT_EQ(m_Bus.mostInside, 1);
}

TEST_F(CDbusClientTest, ThreadThatIsInACallMayAskAgain) {
    bool connected = false;
    m_Bus.onCall = [&](const CFakeBus::Call& /*call*/) { connected = Client().IsConnected(); };
    EXPECT_TRUE(Send(CFakeBus::Status(1, 1)));
    EXPECT_TRUE(connected);
}

TEST_F(CDbusClientTest, LackOfMemoryForAMessageFailsTheCall) {
    m_Bus.outOfMessages = true;
    EXPECT_FALSE(Send(CFakeBus::Status(1, 1)));
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTag, "no memory for a message, [Do] is not called"));
    EXPECT_EQ(m_Bus.Count("SendWithReplyAndBlock"), 0U);
}

TEST_F(CDbusClientTest, ListThatNoMessageHoldsIsNotSent) {
    m_Arguments.assign(85, CDbusValue::OfInt(1));
    EXPECT_FALSE(Send(CFakeBus::Status(1, 1)));
    EXPECT_EQ(m_Bus.Count("SendWithReplyAndBlock"), 0U);
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTagUtil, "85 values are more than one message holds"));
}

}  // namespace
