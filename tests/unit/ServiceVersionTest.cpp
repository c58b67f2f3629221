// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CollectorFixture.h"

#include <gmock/gmock.h>

#include <algorithm>

using testing::ElementsAre;

namespace {

class CServiceVersionTest : public CCollectorTest {
  protected:
    /// Looks the version up afresh, after construction did so once.
    bool LookUp() {
        CTYDataCollector& collector = Collector();
        m_JournalBefore = m_Platform.Journal().size();
        std::fill(std::begin(m_Version), std::end(m_Version), '\0');
        return collector.GetServiceVersion("org.example.app", m_Version, sizeof(m_Version));
    }

    /// @return the platform calls of the look-up
    std::vector<std::string> Calls() {
        auto journal = m_Platform.Journal();
        journal.erase(journal.begin(), journal.begin() + static_cast<long>(m_JournalBefore));
        return journal;
    }

    testing::AssertionResult Error(const std::string& text) {
        return Logged(LOGSVC_ERROR, kTag, text);
    }

    std::size_t m_JournalBefore = 0;
    char m_Version[12]{};
};

TEST_F(CServiceVersionTest, VersionIsFoundAndEverythingGivenBack) {
    EXPECT_TRUE(LookUp());
    EXPECT_STREQ(m_Version, "1.2.3");
    EXPECT_THAT(Calls(),
                ElementsAre("appcat_appinfo_get_usr_appinfo", "appcat_appinfo_get_pkgid",
                            "appcat_pkginfo_get_pkginfo", "appcat_pkginfo_get_version",
                            "appcat_pkginfo_destroy_pkginfo", "appcat_appinfo_destroy_appinfo"));
    EXPECT_EQ(m_Platform.CountLog(LOGSVC_DEBUG, kTag, "pServiceVersion : 1.2.3"), 2U);
}

TEST_F(CServiceVersionTest, NullApplicationIsLogged) {
    EXPECT_FALSE(Collector().GetServiceVersion(nullptr, m_Version, sizeof(m_Version)));
    EXPECT_TRUE(Error("pAppID is NULL"));
}

TEST_F(CServiceVersionTest, UnknownApplicationFails) {
    Collector();
    m_Platform.appInfoResult = -2;
    EXPECT_FALSE(LookUp());
    EXPECT_TRUE(Error("appcat_appinfo_get_usr_appinfo error : -2"));
    EXPECT_THAT(Calls(), ElementsAre("appcat_appinfo_get_usr_appinfo"));
}

TEST_F(CServiceVersionTest, NullHandlesFailToo) {
    Collector();
    m_Platform.appInfoNull = true;
    EXPECT_FALSE(LookUp());
    EXPECT_TRUE(Error("appcat_appinfo_get_usr_appinfo error : 0"));
    m_Platform.appInfoNull = false;
    m_Platform.pkgIdNull = true;
    EXPECT_FALSE(LookUp());
    EXPECT_TRUE(Error("appcat_appinfo_get_pkgid error : 0"));
    m_Platform.pkgIdNull = false;
    m_Platform.pkgInfoNull = true;
    EXPECT_FALSE(LookUp());
    EXPECT_TRUE(Error("appcat_pkginfo_get_pkginfo error : 0"));
}

TEST_F(CServiceVersionTest, FailedPackageIdentifierGivesTheApplicationBack) {
    Collector();
    m_Platform.pkgIdResult = 3;
    EXPECT_FALSE(LookUp());
    EXPECT_TRUE(Error("appcat_appinfo_get_pkgid error : 3"));
    EXPECT_EQ(Calls().back(), "appcat_appinfo_destroy_appinfo");
}

TEST_F(CServiceVersionTest, FailedPackageGivesTheApplicationBack) {
    Collector();
    m_Platform.pkgInfoResult = -4;
    EXPECT_FALSE(LookUp());
    EXPECT_TRUE(Error("appcat_pkginfo_get_pkginfo error : -4"));
    EXPECT_EQ(Calls().back(), "appcat_appinfo_destroy_appinfo");
}

TEST_F(CServiceVersionTest, OnlyANegativeCodeFailsTheVersionItself) {
    Collector();
    m_Platform.versionResult = 5;
    EXPECT_TRUE(LookUp());
    m_Platform.versionResult = -5;
    EXPECT_FALSE(LookUp());
    EXPECT_TRUE(Error("appcat_pkginfo_get_version error : -5"));
    EXPECT_EQ(Calls().back(), "appcat_appinfo_destroy_appinfo");
}

TEST_F(CServiceVersionTest, NullVersionFails) {
    Collector();
    m_Platform.versionNull = true;
    EXPECT_FALSE(LookUp());
    EXPECT_TRUE(Error("appcat_pkginfo_get_version error : 0"));
}

TEST_F(CServiceVersionTest, NullBufferIsLoggedAndEverythingGivenBack) {
    Collector();
    m_JournalBefore = m_Platform.Journal().size();
    EXPECT_FALSE(Collector().GetServiceVersion("org.example.app", nullptr, 12));
    EXPECT_TRUE(Error("pServiceVersion is NULL, so can not strncpy"));
    EXPECT_EQ(Calls().back(), "appcat_appinfo_destroy_appinfo");
}

TEST_F(CServiceVersionTest, LongVersionIsCutToElevenCharacters) {
    m_Platform.version = "123456789012345";
    StartPlayback();
    EXPECT_STREQ(Reported().at(0).serviceVersion, "12345678901");
}

TEST_F(CServiceVersionTest, LongIdentifierIsCutToFortyNineCharacters) {
    m_pCollector = std::make_unique<CTYDataCollector>(std::string(60, 'a').c_str(),
                                                      TY_PLAYER_NATIVE, m_Bus, m_Clock);
    ASSERT_TRUE(m_Platform.WaitForLog("Sender thread start done"));
    StartPlayback();
    EXPECT_EQ(std::string(Reported().at(0).serviceID), std::string(49, 'a'));
}

TEST_F(CServiceVersionTest, NullIdentifierIsLoggedAndRecordsCarryNone) {
    m_pCollector = std::make_unique<CTYDataCollector>(nullptr, TY_PLAYER_NATIVE, m_Bus, m_Clock);
    EXPECT_TRUE(Error("pServiceID is NULL."));
    ASSERT_TRUE(m_Platform.WaitForLog("Sender thread start done"));
    StartPlayback();
    const auto records = Reported();
    EXPECT_STREQ(records.at(0).serviceID, "");
    EXPECT_STREQ(records.at(0).serviceVersion, "");
}

TEST_F(CServiceVersionTest, FailedLookUpKeepsTheVersion) {
    Collector().SetServiceVersion("9.9");
    m_Platform.appInfoResult = -1;
    Collector().SetServiceID("org.example.app");
    StartPlayback();
    EXPECT_STREQ(Reported().at(0).serviceVersion, "9.9");
}

TEST_F(CServiceVersionTest, ClockThatFailsYieldsZeroAndFalse) {
    TYTime time{1, 2};
    Collector();
    m_Clock.FailRealTime(true);
    EXPECT_FALSE(Collector().GetCurrentTime(&time));
    EXPECT_EQ(time.sec, 0);
    EXPECT_EQ(time.nsec, 0);
    EXPECT_TRUE(Error("clock_gettime failed!!!"));
}

}  // namespace
