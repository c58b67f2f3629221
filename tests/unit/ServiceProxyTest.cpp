// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"
#include "TYServiceProxy.h"

#include <gmock/gmock.h>

#include <cstring>

using testing::ElementsAre;

namespace {

constexpr const char* kFileName = "TYServiceProxy.cpp";

class CServiceProxyTest : public CSeamTest {
  protected:
    bool SendOne() {
        std::vector<TYMediaData> records(1);
        std::vector<std::string> urls{"u"};
        return m_Proxy.SendData(records, urls);
    }

    bool Ask() {
        std::string name = "org.example.app";
        m_nPolicy = 99;
        return m_Proxy.GetPolicyInfo(name, &m_nPolicy);
    }

    /// Sends that many records, each with its URL.
    bool SendBatch(std::size_t count) {
        m_Records.assign(count, TYMediaData{});
        m_Urls.assign(count, "u");
        return m_Proxy.SendData(m_Records, m_Urls);
    }

    /// The texts of the error lines, in order.
    std::vector<std::string> Errors() {
        std::vector<std::string> errors;
        for (const CPlatformDouble::LogLine& line : m_Platform.Log()) {
            if (line.priority == LOGSVC_ERROR) {
                errors.push_back(line.text);
            }
        }
        return errors;
    }

    /// An operation of the interface, as the raw table holds it.
    template <class Function>
    Function Slot(int slot) {
        ITYService* pService = &m_Proxy;
        return reinterpret_cast<Function>((*reinterpret_cast<void***>(pService))[slot]);
    }

    testing::AssertionResult ErrorAt(const char* function, int line, const std::string& text) {
        return LoggedAt(LOGSVC_ERROR, kTag, kFileName, function, line, text);
    }

    int m_nPolicy = 0;
    std::vector<TYMediaData> m_Records;
    std::vector<std::string> m_Urls;
    CTYServiceProxy m_Proxy{m_Bus};
};

TEST_F(CServiceProxyTest, BatchIsTheFunctionTheImagesAndTheUrlsInThatOrder) {
    std::vector<TYMediaData> records(2);
    records[0].event = 1;
    records[1].event = 2;
    std::vector<std::string> urls{"a.mp4", "b.mp4"};
    EXPECT_TRUE(m_Proxy.SendData(records, urls));
    const CFakeBus::Call call = m_Bus.Calls().at(0);
    EXPECT_EQ(call.signature, "iisiiayiiayiisiis");
    EXPECT_EQ(call.destination, "org.veltra.tv.tallyra.service");
    EXPECT_EQ(call.interface, "org.veltra.tv.tallyra.client");
    EXPECT_EQ(call.Function(), "SendData");
    for (const std::size_t i : {0U, 1U}) {
        const auto& image = std::get<std::vector<char>>(call.arguments.at(5 + 3 * i));
        ASSERT_EQ(image.size(), 4800U);
        EXPECT_EQ(std::memcmp(image.data(), &records[i], 4800), 0);
    }
    EXPECT_EQ(std::get<std::string>(call.arguments.at(11)), "a.mp4");
    EXPECT_EQ(std::get<std::string>(call.arguments.at(14)), "b.mp4");
}

TEST_F(CServiceProxyTest, EmptyBatchIsTheFunctionAlone) {
    std::vector<TYMediaData> records;
    std::vector<std::string> urls;
    EXPECT_TRUE(m_Proxy.SendData(records, urls));
    EXPECT_EQ(m_Bus.Calls().at(0).signature, "iis");
}

TEST_F(CServiceProxyTest, ListsAreSentAsGivenAndNotComparedInLength) {
    std::vector<TYMediaData> records(1);
    std::vector<std::string> urls{"a", "b", "c"};
    EXPECT_TRUE(m_Proxy.SendData(records, urls));
    EXPECT_EQ(m_Bus.Calls().at(0).signature, "iisiiayiisiisiis");
}

TEST_F(CServiceProxyTest, ThirtySixRecordsAreOneCall) {
    EXPECT_TRUE(SendBatch(36));
    EXPECT_EQ(m_Bus.Calls().size(), 1U);
    EXPECT_EQ(m_Bus.Calls().at(0).signature.size(), 255U);
    EXPECT_THAT(Errors(), testing::IsEmpty());
}

TEST_F(CServiceProxyTest, BatchThatNoMessageHoldsFailsAndIsLeftUntouched) {
    EXPECT_FALSE(SendBatch(37));
    EXPECT_EQ(m_Bus.Calls().size(), 0U);
    EXPECT_THAT(Errors(), ElementsAre("74 values are more than one message holds",
                                      "fail to send data[dbus fail]"));
    EXPECT_EQ(m_Records.size(), 37U);
    EXPECT_EQ(m_Urls, std::vector<std::string>(37, "u"));
}

TEST_F(CServiceProxyTest, BatchIsLeftUntouchedWhenTheServiceRefusesIt) {
    m_Bus.SetReply("SendData", CFakeBus::Status(0, 0));
    EXPECT_FALSE(SendBatch(2));
    EXPECT_EQ(m_Records.size(), 2U);
    EXPECT_EQ(m_Urls, std::vector<std::string>(2, "u"));
}

TEST_F(CServiceProxyTest, AnyValueButZeroAccepts) {
    m_Bus.SetReply("SendData", CFakeBus::Status(-1, -1));
    EXPECT_TRUE(SendOne());
}

TEST_F(CServiceProxyTest, FailureOfTheBusIsToldByTheClientFirst) {
    m_Bus.SetReply("SendData", {{}, "gone"});
    EXPECT_FALSE(SendOne());
    EXPECT_THAT(Errors(), ElementsAre("CLIENT > Dbus error: gone", "REPLY IS NULL!",
                                      "fail to send data[dbus fail]"));
}

TEST_F(CServiceProxyTest, BatchThatIsNotAcceptedFailsWithoutAnErrorLine) {
    m_Bus.SetReply("SendData", CFakeBus::Status(1, 0));
    EXPECT_FALSE(SendOne());
    const auto log = m_Platform.Log();
    EXPECT_TRUE(std::none_of(log.begin(), log.end(),
                             [](const auto& line) { return line.priority == LOGSVC_ERROR; }));
}

TEST_F(CServiceProxyTest, RepliesToABatchThatBreakTheRulesAreLogged) {
    m_Bus.SetReply("SendData", {{0, 0, 1}, ""});
    EXPECT_FALSE(SendOne());
    EXPECT_TRUE(ErrorAt("SendData", 78, "Invalid response format"));
    m_Bus.SetReply("SendData", {{0, 0, 1, 1, 1, "yes"}, ""});
    EXPECT_FALSE(SendOne());
    EXPECT_TRUE(ErrorAt("SendData", 83, "Invalid response type"));
    m_Bus.SetReply("SendData", CFakeBus::Status(0, 1));
    EXPECT_FALSE(SendOne());
    EXPECT_TRUE(ErrorAt("SendData", 73, "fail to send data[dbus fail]"));
}

TEST_F(CServiceProxyTest, PolicyIsAskedByNameAndHandedBack) {
    m_Bus.SetReply("GetPolicyInfo", CFakeBus::Status(1, 0));
    EXPECT_TRUE(Ask());
    EXPECT_EQ(m_nPolicy, 0);
    EXPECT_EQ(m_Bus.Calls().at(0).signature, "iisiis");
    EXPECT_EQ(m_Bus.Calls().at(0).Function(), "GetPolicyInfo");
    EXPECT_EQ(std::get<std::string>(m_Bus.Calls().at(0).arguments.at(5)), "org.example.app");
    EXPECT_TRUE(LoggedAt(LOGSVC_DEBUG, kTag, kFileName, "GetPolicyInfo", 110,
                         "Get policy of org.example.app"));
    m_Bus.SetReply("GetPolicyInfo", CFakeBus::Status(1, -7));
    EXPECT_TRUE(Ask());
    EXPECT_EQ(m_nPolicy, -7);
}

TEST_F(CServiceProxyTest, PolicyRepliesThatBreakTheRulesAreLoggedAndGiveZero) {
    m_Bus.SetReply("GetPolicyInfo", {{0, 0, 1, 1, 1, "yes"}, ""});
    EXPECT_FALSE(Ask());
    EXPECT_EQ(m_nPolicy, 0);
    EXPECT_TRUE(ErrorAt("GetPolicyInfo", 124, "Invalid response type"));
    m_Bus.SetReply("GetPolicyInfo", {{0, 0, 1, 1, 0, 5, 2, 0, 6}, ""});
    EXPECT_FALSE(Ask());
    EXPECT_EQ(m_nPolicy, 0);
    EXPECT_TRUE(ErrorAt("GetPolicyInfo", 119, "Invalid response format"));
    m_Bus.SetReply("GetPolicyInfo", {{}, "gone"});
    EXPECT_FALSE(Ask());
    EXPECT_EQ(m_nPolicy, 0);
    EXPECT_TRUE(ErrorAt("GetPolicyInfo", 114, "fail to get policy[dbus fail]"));
}

TEST_F(CServiceProxyTest, KickSaysKickAndLeavesTheShortTimeout) {
    EXPECT_TRUE(m_Proxy.Kick());
    SendOne();
    const auto calls = m_Bus.Calls();
    EXPECT_EQ(calls.at(0).timeoutMs, 200);
    EXPECT_EQ(calls.at(1).timeoutMs, 200);
    EXPECT_THAT(
        calls.at(0).arguments,
        ElementsAre(CFakeBus::Argument(0), CFakeBus::Argument(1), CFakeBus::Argument("Kick"),
                    CFakeBus::Argument(1), CFakeBus::Argument(1), CFakeBus::Argument("Kick")));
    EXPECT_TRUE(LoggedAt(LOGSVC_INFO, kTag, kFileName, "Kick", 19, "KICK"));
    EXPECT_TRUE(m_Proxy.SetTimeoutMs(3000));
    EXPECT_FALSE(m_Proxy.SetTimeoutMs(0));
}

TEST_F(CServiceProxyTest, KickDoesNotLookBehindTheStatus) {
    m_Bus.SetReply("Kick", {{0, 0, 1, 1, 1, "more", 2, 9}, ""});
    EXPECT_TRUE(m_Proxy.Kick());
    EXPECT_THAT(Errors(), testing::IsEmpty());
}

TEST_F(CServiceProxyTest, KickThatFailedLeavesTheShortTimeoutToo) {
    m_Bus.SetReply("Kick", {{}, "gone"});
    EXPECT_FALSE(m_Proxy.Kick());
    EXPECT_THAT(Errors(), ElementsAre("CLIENT > Dbus error: gone", "REPLY IS NULL!"));
    SendOne();
    EXPECT_EQ(m_Bus.Calls("SendData").at(0).timeoutMs, 200);
}

TEST_F(CServiceProxyTest, SlotsTwoAndThreeDeliverAndAsk) {
    using SendData = bool (*)(ITYService*, std::vector<TYMediaData>&, std::vector<std::string>&);
    using GetPolicyInfo = bool (*)(ITYService*, std::string&, int*);
    EXPECT_TRUE(Slot<SendData>(2)(&m_Proxy, m_Records, m_Urls));
    std::string name = "org.example.app";
    EXPECT_TRUE(Slot<GetPolicyInfo>(3)(&m_Proxy, name, &m_nPolicy));
    EXPECT_EQ(m_nPolicy, 1);
    EXPECT_EQ(m_Bus.Calls().at(0).Function(), "SendData");
    EXPECT_EQ(m_Bus.Calls().at(1).Function(), "GetPolicyInfo");
}

TEST_F(CServiceProxyTest, ProxyConnectsAtOnceAndClosesWhenItGoes) {
    const std::size_t before = m_Bus.Count("GetPrivate");
    auto pProxy = std::make_unique<CTYServiceProxy>(m_Bus);
    EXPECT_EQ(m_Bus.Count("GetPrivate"), before + 1);
    EXPECT_EQ(m_Bus.Count("Close"), 0U);
    pProxy.reset();
    EXPECT_EQ(m_Bus.Count("Close"), 1U);
}

TEST_F(CServiceProxyTest, KickFailsWithoutALineOfItsOwn) {
    m_Bus.SetReply("Kick", {{0, 0, 0}, ""});
    EXPECT_FALSE(m_Proxy.Kick());
    const auto log = m_Platform.Log();
    EXPECT_TRUE(std::none_of(log.begin(), log.end(),
                             [](const auto& line) { return line.priority == LOGSVC_ERROR; }));
}

TEST_F(CServiceProxyTest, ProxyWithoutAConnectionIsNotConnected) {
    m_Bus.connectError = "no bus";
    CTYServiceProxy proxy(m_Bus);
    EXPECT_FALSE(proxy.IsConnected());
    EXPECT_TRUE(
        Logged(LOGSVC_ERROR, kTag, "Connection is not ready. should re-create CDbusClient"));
    EXPECT_TRUE(m_Proxy.IsConnected());
}

}  // namespace
