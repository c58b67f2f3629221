// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYDbusClient.h"

#include "Fixtures.h"

using testing::ElementsAre;

namespace {

class CDbusClientTest : public CLinkTest {
  protected:
    /// Makes the client, after the bus was set up.
    CDbusClient& Client() {
        if (m_pClient == nullptr) {
            m_pClient = std::make_unique<CDbusClient>("the.client", "the.service", m_Bus, m_Clock);
        }
        return *m_pClient;
    }

    bool Send(const CFakeBus::Reply& reply = CFakeBus::Status(1, 1)) {
        m_Bus.SetReply("Do", reply);
        return Client().SendMessage("Do", m_Arguments, m_Reply);
    }

    std::vector<CDbusValue> m_Arguments;
    std::vector<CDbusValue> m_Reply;
    std::unique_ptr<CDbusClient> m_pClient;
};

TEST_F(CDbusClientTest, ConnectsOnceWithThreadsMadeSafeFirstAndClosesWhenItGoes) {
    Client();
    EXPECT_EQ(m_Bus.Journal().front(), "InitThreads");
    EXPECT_EQ(m_Bus.Count("InitThreads"), 1U);
    EXPECT_EQ(m_Bus.Count("OpenPrivate"), 1U);
    EXPECT_TRUE(LinkLine(LOGSVC_INFO, "CDbusClient", 29,
                         "hello> Dbus session [the.client] -> [the.service]"));
    m_pClient.reset();
    EXPECT_EQ(m_Bus.Count("Close"), 1U);
    EXPECT_EQ(m_Bus.Count("Unref"), 0U);
    EXPECT_TRUE(LinkLine(LOGSVC_INFO, "~CDbusClient", 45, "bye> terminal dbus client"));
}

TEST_F(CDbusClientTest, FailedConnectionIsLoggedAndNothingTouchesTheBus) {
    m_Bus.connectError = "no bus here";
    EXPECT_FALSE(Client().IsReady());
    EXPECT_EQ(TakeErrors(),
              "CDbusClient(25) Dbus connection failed: no bus here; "
              "IsConnected(54) Connection is not ready. should re-create CDbusClient");
    EXPECT_FALSE(Send());
    m_pClient.reset();
    EXPECT_TRUE(LinkLine(LOGSVC_DEBUG, "SendMessage", 84, "> path = [], method = []"));
    EXPECT_TRUE(Debug("no connection, [Do] is not called"));
    EXPECT_TRUE(m_Reply.empty());
    EXPECT_EQ(m_Bus.Count("Send"), 0U);
    EXPECT_EQ(m_Bus.Count("Close"), 0U);
}

TEST_F(CDbusClientTest, NoConnectionAndNoErrorIsNotReadyEither) {
    m_Bus.connectNull = true;
    EXPECT_FALSE(Send());
    EXPECT_FALSE(Client().IsReady());
    m_pClient.reset();
    EXPECT_TRUE(Info("hello> Dbus session [the.client] -> [the.service]"));
    EXPECT_EQ(m_Bus.Count("Send"), 0U);
    EXPECT_EQ(m_Bus.Count("Close"), 0U);
}

TEST_F(CDbusClientTest, IsReadyInTheSlotBehindTheDestructorWhenTheServiceOwnsItsName) {
    CDbusPort* pPort = &Client();
    void* pFunction = (*reinterpret_cast<void***>(pPort))[2];
    const auto isReady = reinterpret_cast<bool (*)(CDbusPort*)>(pFunction);
    EXPECT_TRUE(isReady(pPort));
    EXPECT_THAT(m_Bus.BusCalls().back().arguments, ElementsAre(CFakeBus::Argument("the.service")));
    m_Bus.SetOwner(false);
    EXPECT_FALSE(isReady(pPort));
    EXPECT_TRUE(LinkLine(LOGSVC_DEBUG, "IsConnected", 62, "IsConnected returns 1"));
    EXPECT_TRUE(LinkLine(LOGSVC_DEBUG, "IsConnected", 62, "IsConnected returns 0"));
}

TEST_F(CDbusClientTest, TimeoutIsMinusOneOrPositive) {
    constexpr struct {
        int set;
        bool taken;
        int waited;
    } kCases[] = {{0, false, 3000}, {-2, false, 3000}, {-1, true, 25000}, {1, true, 1}};
    for (const auto& each : kCases) {
        SCOPED_TRACE(each.set);
        EXPECT_EQ(Client().SetTimeoutMs(each.set), each.taken);
        Send();
        EXPECT_EQ(m_Bus.Calls().back().timeoutMs, each.waited);
    }
}

TEST_F(CDbusClientTest, CallIsAddressedLoggedAndItsBodyBeginsWithTheFunction) {
    m_Arguments = {CDbusValue::OfInt(5), CDbusValue::OfString("x")};
    EXPECT_TRUE(Send());
    const CFakeBus::Call call = m_Bus.Calls().at(0);
    EXPECT_EQ(call.destination, "the.service");
    EXPECT_EQ(call.path, "/org/veltra/tv/tallyra/service");
    EXPECT_EQ(call.interface, "the.client");
    EXPECT_EQ(call.member, "TYCallFunction");
    const CFakeBus::Arguments body{0, 1, "Do", 1, 0, 5, 2, 1, "x"};
    EXPECT_EQ(call.arguments, body);
    EXPECT_EQ(m_Arguments.at(0).nValue, 5);
    EXPECT_EQ(m_Arguments.at(1).strValue, "x");
    EXPECT_TRUE(LinkLine(LOGSVC_DEBUG, "SendMessage", 84,
                         "> path = [/org/veltra/tv/tallyra/service], method = [TYCallFunction]"));
    EXPECT_TRUE(
        LinkLine(LOGSVC_DEBUG, "SendMessage", 95, "Make Message for method [Do] to [the.service]"));
    EXPECT_TRUE(LinkLine(LOGSVC_DEBUG, "SendMessage", 108, "send"));
}

/// A reply and what becomes of it.
struct Answer {
    CFakeBus::Reply reply;
    bool success;
    /// The number or the text of each value that is handed back, each behind a blank.
    std::string values;
    std::string errors;
};

const Answer kAnswers[] = {
    // The status alone decides, and is taken out.
    {{{0, 0, 1}, ""}, true, "", ""},
    {{{0, 0, 0}, ""}, false, "", ""},
    {{{0, 0, 1, 1, 0, 11, 2, 1, "t"}, ""}, true, " 11 t", ""},
    {CFakeBus::Status(0, 9), false, " 9", ""},
    // A status of the wrong type is zero.
    {{{0, 0, "1"}, ""}, false, "", ""},
    // A reply that begins with a string stays whole.
    {{{0, 1, "text"}, ""}, false, " text", "SendMessage(134) no api return value"},
    {{{}, ""}, false, "", "SendMessage(128) response empty"},
};

TEST_F(CDbusClientTest, ReplyIsTakenByItsStatus) {
    for (const Answer& each : kAnswers) {
        SCOPED_TRACE(&each - kAnswers);
        m_Reply.clear();
        EXPECT_EQ(Send(each.reply), each.success);
        std::string values;
        for (const CDbusValue& value : m_Reply) {
            const bool isInt = value.type == DBUS_VALUE_INT;
            values += " " + (isInt ? std::to_string(value.nValue) : value.strValue);
        }
        EXPECT_EQ(values, each.values);
        EXPECT_EQ(TakeErrors(), each.errors);
    }
    EXPECT_FALSE(Send(m_Gone));
    EXPECT_EQ(TakeErrors(), m_strGone);
}

TEST_F(CDbusClientTest, ReplyIsAppendedAndItsListsFirstValueIsTheStatus) {
    m_Reply = {CDbusValue::OfString("old")};
    EXPECT_FALSE(Send(CFakeBus::Status(1, 9)));
    EXPECT_EQ(TakeErrors(), "SendMessage(134) no api return value");
    ASSERT_EQ(m_Reply.size(), 3U);
    EXPECT_EQ(m_Reply[0].strValue, "old");
    EXPECT_EQ(m_Reply[2].nValue, 9);
}

TEST_F(CDbusClientTest, CallsOfSeveralThreadsAreMadeOneAfterTheOther) {
    std::atomic<int> inside{0};
    std::atomic<int> together{0};
    m_Bus.onLook = [&] {
        together += ++inside > 1 ? 1 : 0;
        std::this_thread::sleep_for(std::chrono::microseconds(20));
        --inside;
    };
    m_Bus.onCall = [&](const CFakeBus::Call& /*call*/) { m_Bus.onLook(); };
    m_Bus.SetReply("Do", CFakeBus::Status(1, 1));
    const auto use = [&client = Client()] {
        for (int call = 0; call < 50; ++call) {
            std::vector<CDbusValue> none;
            std::vector<CDbusValue> reply;
            EXPECT_TRUE(client.SendMessage("Do", none, reply) && client.IsConnected());
        }
    };
    { const std::jthread threads[] = {std::jthread(use), std::jthread(use), std::jthread(use)}; }
    EXPECT_EQ(m_Bus.Calls().size(), 150U);
    EXPECT_EQ(together, 0);
}

TEST_F(CDbusClientTest, ThreadThatIsInACallMayAskAgain) {
    bool connected = false;
    m_Bus.onCall = [&](const CFakeBus::Call& /*call*/) { connected = Client().IsConnected(); };
    EXPECT_TRUE(Send());
    EXPECT_TRUE(connected);
}

TEST_F(CDbusClientTest, CallThatCannotBeMadeIsNotSent) {
    Client();
    m_Bus.failing = {"NewMethodCall"};
    EXPECT_FALSE(Send());
    EXPECT_TRUE(Error("no memory for a message, [Do] is not called"));
    EXPECT_EQ(m_Bus.Calls().size(), 0U);
}

TEST_F(CDbusClientTest, FirstCallWithoutAReplyDuringAShutdownIsTheLastOneMade) {
    EXPECT_FALSE(Send(m_Gone));  // does not count yet
    Client().BeginShutdown();
    EXPECT_TRUE(Send());
    EXPECT_FALSE(Send(m_Gone));
    EXPECT_FALSE(Send());
    EXPECT_EQ(m_Bus.Calls().size(), 3U);
    EXPECT_TRUE(Error("shutting down without a reply, [Do] is not called"));
}

TEST_F(CDbusClientTest, CallThatIsUnderWayWhenAShutdownBeginsCounts) {
    m_Bus.onCall = [this](const CFakeBus::Call& /*call*/) { Client().BeginShutdown(); };
    EXPECT_FALSE(Send(m_Gone));
    EXPECT_FALSE(Send());
    EXPECT_EQ(m_Bus.Calls().size(), 1U);
}

// An error is an answer, and comes at once.
TEST_F(CDbusClientTest, ServiceThatAnswersGetsEverythingDuringAShutdown) {
    Client().BeginShutdown();
    for (int call = 0; call < 10; ++call) {
        EXPECT_TRUE(Send());
        EXPECT_FALSE(Send({{}, "who?", DBUS_ERROR_SERVICE_UNKNOWN}));
    }
    EXPECT_EQ(m_Bus.Calls().size(), 20U);
    EXPECT_EQ(m_Bus.Calls().back().timeoutMs, 3000);
}

}  // namespace
