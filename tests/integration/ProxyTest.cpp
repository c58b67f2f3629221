// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PrivateBus.h"
#include "TYServiceProxy.h"
#include "doubles/PlatformDouble.h"
#include "receiver/Receiver.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

using receiver::Reply;
using std::chrono::milliseconds;
using testing::Contains;
using testing::Field;
using testing::StartsWith;

namespace {

/// The service's proxy on a real bus, with a service that may take its time.
class CProxyTest : public testing::Test {
  protected:
    CProxyTest() {
        m_Platform.Reset();
        m_Bus.BecomeSystemBus();
        m_Service.OwnName();
    }

    bool SendBatch(CTYServiceProxy& proxy) {
        std::vector<TYMediaData> records(1);
        std::vector<std::string> urls(1);
        return proxy.SendData(records, urls);
    }

    static CPrivateBus& TheBus() {
        static CPrivateBus bus;
        return bus;
    }

    CPlatformDouble& m_Platform = CPlatformDouble::Instance();
    CPrivateBus& m_Bus = TheBus();
    receiver::CReceiver m_Service{m_Bus.Address()};
};

TEST_F(CProxyTest, CallBeforeAnyKickWaitsForASlowService) {
    m_Service.SetReply("SendData", Reply::ByRules().After(milliseconds(600)));
    CTYServiceProxy proxy;
    EXPECT_TRUE(SendBatch(proxy));
}

TEST_F(CProxyTest, CallBehindAKickIsCutOffAtItsShortTime) {
    m_Service.SetReply("SendData", Reply::ByRules().After(milliseconds(600)));
    CTYServiceProxy proxy;
    ASSERT_TRUE(proxy.Kick());
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(SendBatch(proxy));
    const auto waited = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(waited, milliseconds(190));
    EXPECT_LT(waited, milliseconds(600));
    EXPECT_THAT(m_Platform.Log(), Contains(Field(&CPlatformDouble::LogLine::text,
                                                 StartsWith("CLIENT > Dbus error: "))));
}

}  // namespace
