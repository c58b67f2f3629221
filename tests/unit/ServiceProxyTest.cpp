// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYServiceProxy.h"

#include "Fixtures.h"
#include "tallyra/TYTypes.h"

namespace {

// Calls the operations of the interface through its raw table, in which they are the slots 2 and 3.
class CServiceProxyTest : public CLinkTest {
  protected:
    bool Ask() {
        std::string name = "org.example.app";
        m_nPolicy = 99;
        using GetPolicyInfo = bool (*)(ITYService*, std::string&, int*);
        return Slot<GetPolicyInfo>(3)(&m_Proxy, name, &m_nPolicy);
    }

    /// Sends records, and by default one URL for each.
    bool SendBatch(std::size_t records, std::size_t urls = SIZE_MAX) {
        m_Records.assign(records, TYMediaData{});
        m_Urls.assign(urls == SIZE_MAX ? records : urls, "u");
        using SendData =
            bool (*)(ITYService*, std::vector<TYMediaData>&, std::vector<std::string>&);
        return Slot<SendData>(2)(&m_Proxy, m_Records, m_Urls);
    }

    /// @return an operation of the interface, as the raw table holds it
    template <class Function>
    Function Slot(int slot) {
        ITYService* pService = &m_Proxy;
        return reinterpret_cast<Function>((*reinterpret_cast<void***>(pService))[slot]);
    }

    int m_nPolicy = 0;
    std::vector<TYMediaData> m_Records;
    std::vector<std::string> m_Urls;
    CTYServiceProxy m_Proxy{m_Bus, m_Clock};
};

TEST_F(CServiceProxyTest, BatchIsTheFunctionTheImagesAndTheUrlsInThatOrder) {
    m_Records.resize(2);
    m_Records[0].event = TY_EVENT_START;
    m_Records[1].event = TY_EVENT_STOP;
    m_Urls = {"a.mp4", "b.mp4"};
    EXPECT_TRUE(m_Proxy.SendData(m_Records, m_Urls));
    const CFakeBus::Call call = m_Bus.Calls().at(0);
    EXPECT_EQ(call.signature, "iisiiayiiayiisiis");
    EXPECT_EQ(call.destination, "org.veltra.tv.tallyra.service");
    EXPECT_EQ(call.interface, "org.veltra.tv.tallyra.client");
    EXPECT_EQ(call.Function(), "SendData");
    for (const std::size_t i : {0U, 1U}) {
        const auto& image = std::get<std::vector<char>>(call.arguments.at(5 + 3 * i));
        ASSERT_EQ(image.size(), 4800U);
        EXPECT_EQ(std::memcmp(image.data(), &m_Records[i], 4800), 0);
    }
    EXPECT_EQ(std::get<std::string>(call.arguments.at(11)), "a.mp4");
    EXPECT_EQ(std::get<std::string>(call.arguments.at(14)), "b.mp4");
}

TEST_F(CServiceProxyTest, ListsAreSentAsGivenAndNotComparedInLength) {
    EXPECT_TRUE(SendBatch(0));
    EXPECT_EQ(m_Bus.Calls().back().signature, "iis");
    EXPECT_TRUE(SendBatch(1, 3));
    EXPECT_EQ(m_Bus.Calls().back().signature, "iisiiayiisiisiis");
    EXPECT_TRUE(SendBatch(36));
    EXPECT_EQ(m_Bus.Calls().back().signature.size(), 255U);
    EXPECT_EQ(TakeErrors(), "");
}

TEST_F(CServiceProxyTest, BatchThatNoMessageHoldsFailsAndIsLeftUntouched) {
    EXPECT_FALSE(SendBatch(37));
    EXPECT_EQ(m_Bus.Calls().size(), 0U);
    EXPECT_EQ(TakeErrors(),
              "74 values are more than one message holds; "
              "SendData(73) fail to send data[dbus fail]");
    EXPECT_EQ(m_Records.size(), 37U);
    EXPECT_EQ(m_Urls, std::vector<std::string>(37, "u"));
}

/// What a reply makes of a call.
struct Answer {
    CFakeBus::Reply reply;
    bool success;
    int policy;
    std::string errors;
};

const CFakeBus::Reply kText{{0, 0, 1, 1, 1, "yes"}, ""};

const Answer kAnswersToABatch[] = {
    {CFakeBus::Status(-1, -1), true, 0, ""},
    {CFakeBus::Status(1, 0), false, 0, ""},
    {CFakeBus::Status(0, 1), false, 0, "SendData(73) fail to send data[dbus fail]"},
    {{{0, 0, 1}, ""}, false, 0, "SendData(78) Invalid response format"},
    {kText, false, 0, "SendData(83) Invalid response type"},
};

TEST_F(CServiceProxyTest, BatchIsAcceptedByAValueOtherThanZeroAndLeftUntouched) {
    for (const Answer& each : kAnswersToABatch) {
        SCOPED_TRACE(&each - kAnswersToABatch);
        m_Bus.SetReply("SendData", each.reply);
        EXPECT_EQ(SendBatch(2), each.success);
        EXPECT_EQ(m_Records.size(), 2U);
        EXPECT_EQ(m_Urls, std::vector<std::string>(2, "u"));
        EXPECT_EQ(TakeErrors(), each.errors);
    }
    m_Bus.SetReply("SendData", m_Gone);
    EXPECT_FALSE(SendBatch(1));
    EXPECT_EQ(TakeErrors(), m_strGone + "; SendData(73) fail to send data[dbus fail]");
}

const Answer kAnswersAboutAnApplication[] = {
    {CFakeBus::Status(1, 0), true, 0, ""},
    {CFakeBus::Status(1, -7), true, -7, ""},
    {CFakeBus::Status(0, 7), false, 0, "GetPolicyInfo(114) fail to get policy[dbus fail]"},
    {{{0, 1, "1", 1, 0, 7}, ""},
     false,
     0,
     "SendMessage(134) no api return value; GetPolicyInfo(114) fail to get policy[dbus fail]"},
    {{{0, 0, 7}, ""}, false, 0, "GetPolicyInfo(119) Invalid response format"},
    {kText, false, 0, "GetPolicyInfo(124) Invalid response type"},
    {{{0, 0, 1, 1, 0, 5, 2, 0, 6}, ""}, false, 0, "GetPolicyInfo(119) Invalid response format"},
};

TEST_F(CServiceProxyTest, PolicyIsTheValueBehindTheStatusAndZeroOnFailure) {
    for (const Answer& each : kAnswersAboutAnApplication) {
        SCOPED_TRACE(&each - kAnswersAboutAnApplication);
        m_Bus.SetReply("GetPolicyInfo", each.reply);
        EXPECT_EQ(Ask(), each.success);
        EXPECT_EQ(m_nPolicy, each.policy);
        EXPECT_EQ(TakeErrors(), each.errors);
    }
    m_Bus.SetReply("GetPolicyInfo", m_Gone);
    EXPECT_FALSE(Ask());
    EXPECT_EQ(m_nPolicy, 0);
    EXPECT_EQ(TakeErrors(), m_strGone + "; GetPolicyInfo(114) fail to get policy[dbus fail]");
}

TEST_F(CServiceProxyTest, PolicyIsAskedByName) {
    EXPECT_TRUE(Ask());
    const CFakeBus::Call call = m_Bus.Calls().at(0);
    EXPECT_EQ(call.signature, "iisiis");
    EXPECT_EQ(call.Function(), "GetPolicyInfo");
    EXPECT_EQ(std::get<std::string>(call.arguments.at(5)), "org.example.app");
    EXPECT_TRUE(LinkLine(LOGSVC_DEBUG, "GetPolicyInfo", 110, "Get policy of org.example.app"));
}

TEST_F(CServiceProxyTest, KickHasAShortTimeoutAndLeavesItWhateverTheAnswer) {
    const CFakeBus::Arguments body{0, 1, "Kick", 1, 1, "Kick"};
    for (const CFakeBus::Reply& reply : {m_Gone, m_Answer}) {
        m_Proxy.SetTimeoutMs(3000);
        m_Bus.SetReply("Kick", reply);
        EXPECT_EQ(m_Proxy.Kick(), reply.error.empty());
        EXPECT_TRUE(LinkLine(LOGSVC_INFO, "Kick", 19, "KICK"));
        EXPECT_EQ(TakeErrors(), reply.error.empty() ? "" : m_strGone);
        EXPECT_EQ(m_Bus.Calls().back().arguments, body);
        EXPECT_EQ(m_Bus.Calls().back().timeoutMs, 200);
        SendBatch(1);
        EXPECT_EQ(m_Bus.Calls().back().timeoutMs, 200);
    }
    EXPECT_TRUE(m_Proxy.SetTimeoutMs(3000));
    EXPECT_FALSE(m_Proxy.SetTimeoutMs(0));
}

TEST_F(CServiceProxyTest, KickReadsNothingButTheStatus) {
    m_Bus.SetReply("Kick", {{0, 0, 1, 1, 1, "more", 2, 9}, ""});
    EXPECT_TRUE(m_Proxy.Kick());
    m_Bus.SetReply("Kick", {{0, 0, 0}, ""});
    EXPECT_FALSE(m_Proxy.Kick());
    EXPECT_EQ(TakeErrors(), "");
}

}  // namespace
