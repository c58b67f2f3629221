// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CollectorFixture.h"

#include <gmock/gmock.h>
#include <unistd.h>

using testing::ElementsAreArray;

namespace {

// The calls of a look-up, in their order.
constexpr const char* kApp = "appcat_appinfo_get_usr_appinfo";
constexpr const char* kPkgId = "appcat_appinfo_get_pkgid";
constexpr const char* kPkg = "appcat_pkginfo_get_pkginfo";
constexpr const char* kVersion = "appcat_pkginfo_get_version";
constexpr const char* kEndPkg = "appcat_pkginfo_destroy_pkginfo";
constexpr const char* kEndApp = "appcat_appinfo_destroy_appinfo";

/// A look-up that fails: how, what is logged, and which calls are made.
struct LookUp {
    const char* name;
    void (*prepare)(CPlatformDouble&);
    const char* error;
    std::vector<const char*> calls;
};

void PrintTo(const LookUp& lookUp, std::ostream* pOut) {
    *pOut << lookUp.name;
}

std::vector<LookUp> FailedLookUps() {
    return {
        {"AppFails",
         [](auto& p) { p.appInfoResult = 2; },
         "appcat_appinfo_get_usr_appinfo error : 2",
         {kApp}},
        {"AppIsNull",
         [](auto& p) { p.appInfoNull = true; },
         "appcat_appinfo_get_usr_appinfo error : 0",
         {kApp}},
        {"PackageIdFails",
         [](auto& p) { p.pkgIdResult = 3; },
         "appcat_appinfo_get_pkgid error : 3",
         {kApp, kPkgId, kEndApp}},
        {"PackageIdIsNull",
         [](auto& p) { p.pkgIdNull = true; },
         "appcat_appinfo_get_pkgid error : 0",
         {kApp, kPkgId, kEndApp}},
        {"PackageFails",
         [](auto& p) { p.pkgInfoResult = 4; },
         "appcat_pkginfo_get_pkginfo error : 4",
         {kApp, kPkgId, kPkg, kEndApp}},
        {"PackageIsNull",
         [](auto& p) { p.pkgInfoNull = true; },
         "appcat_pkginfo_get_pkginfo error : 0",
         {kApp, kPkgId, kPkg, kEndApp}},
        {"VersionFails",
         [](auto& p) { p.versionResult = -5; },
         "appcat_pkginfo_get_version error : -5",
         {kApp, kPkgId, kPkg, kVersion, kEndPkg, kEndApp}},
        {"VersionIsNull",
         [](auto& p) { p.versionNull = true; },
         "appcat_pkginfo_get_version error : 0",
         {kApp, kPkgId, kPkg, kVersion, kEndPkg, kEndApp}},
    };
}

class CServiceLookUpTest : public CCollectorTest {
  protected:
    /// @return the platform calls since the journal had `before` of them
    std::vector<std::string> CallsSince(std::size_t before) {
        auto journal = m_Platform.Journal();
        journal.erase(journal.begin(), journal.begin() + static_cast<long>(before));
        return journal;
    }

    /// @return the identity in the record of a START
    std::string RecordedIdentity() {
        StartPlayback();
        const TYMediaData record = Reported().at(0);
        return std::string(record.serviceID) + " " + record.serviceVersion;
    }
};

class CFailedLookUpTest : public CServiceLookUpTest, public testing::WithParamInterface<LookUp> {};

TEST_P(CFailedLookUpTest, GivesBackWhatItGotAndLeavesTheBufferAlone) {
    char version[12] = "before";
    Collector();
    GetParam().prepare(m_Platform);
    const std::size_t before = m_Platform.Journal().size();
    EXPECT_FALSE(Collector().GetServiceVersion("org.example.app", version, sizeof(version)));
    EXPECT_THAT(CallsSince(before), ElementsAreArray(GetParam().calls));
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTag, GetParam().error));
    EXPECT_STREQ(version, "before");
}

TEST_P(CFailedLookUpTest, AtConstructionLeavesAnEmptyVersionAndCollectionGoesOn) {
    GetParam().prepare(m_Platform);
    EXPECT_EQ(RecordedIdentity(), "org.example.app ");
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTag, GetParam().error));
}

INSTANTIATE_TEST_SUITE_P(EachStep, CFailedLookUpTest, testing::ValuesIn(FailedLookUps()),
                         [](const auto& lookUp) { return lookUp.param.name; });

TEST_F(CServiceLookUpTest, NullBufferGivesBothHandlesBack) {
    Collector();
    const std::size_t before = m_Platform.Journal().size();
    EXPECT_FALSE(Collector().GetServiceVersion("org.example.app", nullptr, 12));
    EXPECT_THAT(CallsSince(before),
                testing::ElementsAre(kApp, kPkgId, kPkg, kVersion, kEndPkg, kEndApp));
}

TEST_F(CServiceLookUpTest, NullApplicationAsksThePlatformNothing) {
    char version[12] = "before";
    Collector();
    const std::size_t before = m_Platform.Journal().size();
    EXPECT_FALSE(Collector().GetServiceVersion(nullptr, version, sizeof(version)));
    EXPECT_THAT(CallsSince(before), testing::IsEmpty());
    EXPECT_STREQ(version, "before");
}

TEST_F(CServiceLookUpTest, PlatformIsAskedForTheApplicationOfThisUserAndItsPackage) {
    Collector();
    const CPlatformDouble::Asked asked = m_Platform.LastAsked();
    EXPECT_EQ(asked.appId, "org.example.app");
    EXPECT_EQ(asked.uid, getuid());
    EXPECT_EQ(asked.pkgId, "org.example.package");
}

TEST_F(CServiceLookUpTest, LongIdentifierIsCutBeforeItIsLookedUp) {
    Collector().SetServiceID(std::string(60, 'a').c_str());
    EXPECT_EQ(m_Platform.LastAsked().appId, std::string(49, 'a'));
}

TEST_F(CServiceLookUpTest, IdentifierOfFortyNineCharactersIsWhole) {
    Collector().SetServiceID(std::string(49, 'b').c_str());
    EXPECT_EQ(RecordedIdentity(), std::string(49, 'b') + " 1.2.3");
}

TEST_F(CServiceLookUpTest, NullIdentifierLeavesIdentifierAndVersion) {
    Collector().SetServiceID(nullptr);
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTag, "pServiceID is NULL."));
    EXPECT_EQ(RecordedIdentity(), "org.example.app 1.2.3");
}

TEST_F(CServiceLookUpTest, ShortBufferIsFilledToItsLengthAndNotTerminated) {
    char version[6] = "xxxxx";
    EXPECT_TRUE(Collector().GetServiceVersion("org.example.app", version, 3));
    EXPECT_STREQ(version, "1.2xx");
    EXPECT_EQ(RecordedIdentity(), "org.example.app 1.2.3");
}

TEST_F(CServiceLookUpTest, VersionOfElevenCharactersIsWhole) {
    m_Platform.version = "12345678901";
    EXPECT_EQ(RecordedIdentity(), "org.example.app 12345678901");
}

TEST_F(CServiceLookUpTest, PositiveCodeWithAVersionIsNoFailureAtConstruction) {
    m_Platform.versionResult = 5;
    EXPECT_EQ(RecordedIdentity(), "org.example.app 1.2.3");
}

TEST_F(CServiceLookUpTest, WallClockIsReadUnscaled) {
    TYTime time{};
    m_Clock.SetRealTime(1234567890, 987654321);
    EXPECT_TRUE(Collector().GetCurrentTime(&time));
    EXPECT_EQ(time.sec, 1234567890);
    EXPECT_EQ(time.nsec, 987654321);
}

}  // namespace
