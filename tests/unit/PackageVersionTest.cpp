// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CollectorFixture.h"

namespace {

class CPackageVersionTest : public CCollectorTest {
  protected:
    testing::AssertionResult Error(const std::string& text) {
        return Logged(LOGSVC_ERROR, kTag, text);
    }

    char m_Version[12]{};
};

TEST_F(CPackageVersionTest, IsFoundAndLogged) {
    EXPECT_TRUE(Collector().GetServiceVersion("org.example.app", m_Version, sizeof(m_Version)));
    EXPECT_STREQ(m_Version, "1.2.3");
    EXPECT_EQ(m_Platform.CountLog(LOGSVC_DEBUG, kTag, "pServiceVersion : 1.2.3"), 2U);
}

TEST_F(CPackageVersionTest, NullsAreLogged) {
    EXPECT_FALSE(Collector().GetServiceVersion(nullptr, m_Version, sizeof(m_Version)));
    EXPECT_TRUE(Error("pAppID is NULL"));
    EXPECT_FALSE(Collector().GetServiceVersion("org.example.app", nullptr, 12));
    EXPECT_TRUE(Error("pServiceVersion is NULL, so can not strncpy"));
}

TEST_F(CPackageVersionTest, LongTextsAreCutToTheirFields) {
    m_Platform.version = "123456789012345";
    MakeCollector(std::string(60, 'a').c_str());
    ASSERT_TRUE(m_Platform.WaitForLog("Sender thread start done"));
    StartPlayback();
    const TYMediaData record = Reported().at(0);
    EXPECT_STREQ(record.serviceVersion, "12345678901");
    EXPECT_EQ(std::string(record.serviceID), std::string(49, 'a'));
}

TEST_F(CPackageVersionTest, NullApplicationIsLoggedAndLeavesRecordsWithoutOne) {
    MakeCollector(nullptr);
    EXPECT_TRUE(Error("pServiceID is NULL."));
    ASSERT_TRUE(m_Platform.WaitForLog("Sender thread start done"));
    StartPlayback();
    const TYMediaData record = Reported().at(0);
    EXPECT_STREQ(record.serviceID, "");
    EXPECT_STREQ(record.serviceVersion, "");
}

TEST_F(CPackageVersionTest, StaysWhenALaterLookUpFails) {
    Collector().SetServiceVersion("9.9");
    m_Platform.appInfoResult = -1;
    Collector().SetServiceID("org.example.app");
    StartPlayback();
    EXPECT_STREQ(Reported().at(0).serviceVersion, "9.9");
}

TEST_F(CCollectorTest, CurrentTimeIsZeroAndFalseIfTheClockFails) {
    TYTime time{1, 2};
    Collector();
    m_Clock.FailRealTime(true);
    EXPECT_FALSE(Collector().GetCurrentTime(&time));
    EXPECT_EQ(time.sec, 0);
    EXPECT_EQ(time.nsec, 0);
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTag, "clock_gettime failed!!!"));
}

}  // namespace
