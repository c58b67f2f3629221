// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "NetworkFixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;

namespace {

TEST_F(CConnectionTest, DefaultRouteConnects) {
    EXPECT_FALSE(HasGateway());
    EXPECT_EQ(Type(), CONNECTION_TYPE_DISCONNECTED);
    ASSERT_TRUE(AddRoute());
    EXPECT_TRUE(HasGateway());
    EXPECT_EQ(Type(), CONNECTION_TYPE_ETHERNET);
    ASSERT_TRUE(DeleteRoute());
    EXPECT_FALSE(HasGateway());
}

TEST_F(CConnectionTest, Ipv6DefaultRouteConnects) {
    ASSERT_TRUE(Ip("-6 addr add fd77::1/64 dev va nodad"));
    ASSERT_TRUE(Ip("-6 route add default via fd77::2 dev va"));
    EXPECT_TRUE(HasGateway());
    EXPECT_EQ(Type(), CONNECTION_TYPE_ETHERNET);
}

TEST_F(CConnectionTest, UnreachableDefaultRouteDoesNotConnect) {
    ASSERT_TRUE(Ip("route add unreachable default metric 7"));
    EXPECT_FALSE(HasGateway());
    ASSERT_TRUE(Ip("route del unreachable default metric 7"));
}

TEST_F(CConnectionTest, MonitorReportsThatTheRouteAppearsMovesAndDisappears) {
    ASSERT_EQ(Monitor(m_Callbacks), 0);
    ASSERT_TRUE(AddRoute() && m_Callbacks.WaitFor(1));
    ASSERT_TRUE(Ip("route replace default via 10.77.2.2 dev vc") && m_Callbacks.WaitFor(2));
    ASSERT_TRUE(DeleteRoute() && m_Callbacks.WaitFor(3));
    EXPECT_THAT(m_Callbacks.Reports(), ElementsAre("GATEWAY 0", "GATEWAY 0", "GATEWAY -2"));
}

TEST_F(CConnectionTest, MonitorReportsThatTheLinkOfTheRouteGoesDown) {
    ASSERT_TRUE(AddRoute());
    ASSERT_EQ(Monitor(m_Callbacks), 0);
    ASSERT_TRUE(Ip("link set va down") && m_Callbacks.WaitFor(1));
    EXPECT_THAT(m_Callbacks.Reports(), ElementsAre("GATEWAY -2"));
}

TEST_F(CConnectionTest, MonitorIsSetOnceAndReportsNothingAfterUnset) {
    ASSERT_EQ(Monitor(m_Callbacks), 0);
    EXPECT_EQ(Monitor(m_Callbacks), CONNECTION_ERROR_ALREADY_REGISTERED);
    EXPECT_EQ(Unset(), 0);
    EXPECT_EQ(Unset(), CONNECTION_ERROR_NOT_REGISTERED);
    ASSERT_TRUE(AddRoute());
    EXPECT_TRUE(HasGateway());
    EXPECT_TRUE(m_Callbacks.Reports().empty());
}

TEST_F(CConnectionTest, CallbackMayUnsetItsMonitor) {
    CCallbacks callbacks([this] { Unset(); });
    ASSERT_EQ(Monitor(callbacks), 0);
    ASSERT_TRUE(AddRoute() && callbacks.WaitFor(1));
    EXPECT_EQ(Unset(), CONNECTION_ERROR_NOT_REGISTERED);
}

TEST_F(CConnectionTest, UnsetWaitsForARunningCallback) {
    CBlockingWork work;
    CCallbacks callbacks([&] { work.Run(); });
    ASSERT_EQ(Monitor(callbacks), 0);
    ASSERT_TRUE(AddRoute() && work.WaitUntilEntered());
    EXPECT_TRUE(work.Outlasts([this] { EXPECT_EQ(Unset(), 0); }));
}

TEST_F(CConnectionTest, UnsetWaitsForACallbackThatHasUnsetItself) {
    CBlockingWork work;
    CCallbacks callbacks([&] {
        Unset();
        work.Run();
    });
    ASSERT_EQ(Monitor(callbacks), 0);
    ASSERT_TRUE(AddRoute() && work.WaitUntilEntered());
    EXPECT_TRUE(work.Outlasts([this] { EXPECT_EQ(Unset(), CONNECTION_ERROR_NOT_REGISTERED); }));
}

TEST_F(CConnectionTest, DestroyWaitsForARunningCallback) {
    CBlockingWork work;
    CCallbacks callbacks([&] { work.Run(); });
    ASSERT_EQ(Monitor(callbacks), 0);
    ASSERT_TRUE(AddRoute() && work.WaitUntilEntered());
    EXPECT_TRUE(work.Outlasts([this] { EXPECT_EQ(connection_destroy(m_hConnection), 0); }));
    ASSERT_EQ(connection_create(&m_hConnection), 0);
}

TEST_F(CConnectionTest, CallbackMayDestroyItsConnection) {
    CCallbacks callbacks([this] { connection_destroy(m_hConnection); });
    ASSERT_EQ(Monitor(callbacks), 0);
    ASSERT_TRUE(AddRoute() && callbacks.WaitFor(1));
    ASSERT_EQ(connection_create(&m_hConnection), 0);
    ASSERT_EQ(Monitor(m_Callbacks), 0);
    ASSERT_TRUE(DeleteRoute());
    EXPECT_TRUE(m_Callbacks.WaitFor(1));
    // Setting a monitor joins the first one's thread, which has ended by now.
    EXPECT_EQ(Unset(), 0);
    EXPECT_EQ(Monitor(m_Callbacks), 0);
}

TEST(Connection, RejectsInvalidParameters) {
    EXPECT_EQ(connection_create(nullptr), CONNECTION_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(connection_destroy(nullptr), CONNECTION_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(connection_get_type(nullptr, nullptr), CONNECTION_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(connection_profile_check_default_gateway(nullptr),
              CONNECTION_ERROR_INVALID_PARAMETER);
}

}  // namespace
