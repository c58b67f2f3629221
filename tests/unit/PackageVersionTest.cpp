// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CollectorFixture.h"

#include <gmock/gmock.h>

#include <algorithm>

using testing::ElementsAre;

namespace {

class CPackageVersionTest : public CCollectorTest {
  protected:
    /// Looks the version up again, after the constructor did.
    bool LookUp() {
        CTYDataCollector& collector = Collector();
        m_JournalBefore = m_Platform.Journal().size();
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

TEST_F(CPackageVersionTest, IsFoundAndAllHandlesAreDestroyed) {
    EXPECT_TRUE(LookUp());
    EXPECT_STREQ(m_Version, "1.2.3");
    EXPECT_THAT(Calls(),
                ElementsAre("appcat_appinfo_get_usr_appinfo", "appcat_appinfo_get_pkgid",
                            "appcat_pkginfo_get_pkginfo", "appcat_pkginfo_get_version",
                            "appcat_pkginfo_destroy_pkginfo", "appcat_appinfo_destroy_appinfo"));
    EXPECT_EQ(m_Platform.CountLog(LOGSVC_DEBUG, kTag, "pServiceVersion : 1.2.3"), 2U);
}

/// A platform call that fails, with the line that it leaves and the last call of the look-up.
struct Failure {
    void (*pFail)(CPlatformDouble& platform);
    const char* line;
    const char* lastCall;
};
using CFailedPackageLookUpTest = CTableTest<CPackageVersionTest, Failure>;

TEST_P(CFailedPackageLookUpTest, IsLoggedAndDestroysWhatItGot) {
    Collector();
    Case().pFail(m_Platform);
    EXPECT_FALSE(LookUp());
    EXPECT_TRUE(Error(Case().line));
    EXPECT_EQ(Calls().back(), Case().lastCall);
}

constexpr const char* kLookUp = "appcat_appinfo_get_usr_appinfo";
constexpr const char* kDestroy = "appcat_appinfo_destroy_appinfo";

using Platform = CPlatformDouble;
const Named<Failure> kFailures[] = {
    {"UnknownApplication",
     {[](Platform& p) { p.appInfoResult = -2; }, "appcat_appinfo_get_usr_appinfo error : -2",
      kLookUp}},
    {"NullApplication",
     {[](Platform& p) { p.appInfoNull = true; }, "appcat_appinfo_get_usr_appinfo error : 0",
      kLookUp}},
    {"PackageIdentifier",
     {[](Platform& p) { p.pkgIdResult = 3; }, "appcat_appinfo_get_pkgid error : 3", kDestroy}},
    {"NullPackageIdentifier",
     {[](Platform& p) { p.pkgIdNull = true; }, "appcat_appinfo_get_pkgid error : 0", kDestroy}},
    {"Package",
     {[](Platform& p) { p.pkgInfoResult = -4; }, "appcat_pkginfo_get_pkginfo error : -4",
      kDestroy}},
    {"NullPackage",
     {[](Platform& p) { p.pkgInfoNull = true; }, "appcat_pkginfo_get_pkginfo error : 0", kDestroy}},
    {"Version",
     {[](Platform& p) { p.versionResult = -5; }, "appcat_pkginfo_get_version error : -5",
      kDestroy}},
    {"NullVersion",
     {[](Platform& p) { p.versionNull = true; }, "appcat_pkginfo_get_version error : 0", kDestroy}},
};
INSTANTIATE_TEST_SUITE_P(Of, CFailedPackageLookUpTest, testing::ValuesIn(kFailures), kByName);

TEST_F(CPackageVersionTest, PositiveCodeOfTheVersionIsNoFailure) {
    Collector();
    m_Platform.versionResult = 5;
    EXPECT_TRUE(LookUp());
}

TEST_F(CPackageVersionTest, NullsAreLoggedAndTheHandlesDestroyed) {
    EXPECT_FALSE(Collector().GetServiceVersion(nullptr, m_Version, sizeof(m_Version)));
    EXPECT_TRUE(Error("pAppID is NULL"));
    EXPECT_FALSE(Collector().GetServiceVersion("org.example.app", nullptr, 12));
    EXPECT_TRUE(Error("pServiceVersion is NULL, so can not strncpy"));
    EXPECT_EQ(Calls().back(), kDestroy);
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
