// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"

namespace {

// The calls of a look-up, in their order.
constexpr const char* kApp = "appcat_appinfo_get_usr_appinfo";
constexpr const char* kPkgId = "appcat_appinfo_get_pkgid";
constexpr const char* kPkg = "appcat_pkginfo_get_pkginfo";
constexpr const char* kVersion = "appcat_pkginfo_get_version";
constexpr const char* kEndPkg = "appcat_pkginfo_destroy_pkginfo";
constexpr const char* kEndApp = "appcat_appinfo_destroy_appinfo";

using Calls = std::deque<std::string>;
const Calls kUpToPkgId{kApp, kPkgId, kEndApp};
const Calls kUpToPkg{kApp, kPkgId, kPkg, kEndApp};
const Calls kAll{kApp, kPkgId, kPkg, kVersion, kEndPkg, kEndApp};

class CServiceLookUpTest : public CCollectorTest {
  protected:
    /// @return the platform calls of all look-ups since the last call
    Calls TakeCalls() {
        Calls calls = m_Platform.Journal();
        calls.erase(calls.begin(), calls.begin() + m_nTaken);
        m_nTaken += std::ssize(calls);
        std::erase_if(calls, [](const std::string& call) { return !call.starts_with("appcat_"); });
        return calls;
    }

    /// @return the identity in the record of a START
    std::string RecordedIdentity() {
        StartPlayback();
        const TYMediaData record = Reported().at(0);
        return std::string(record.serviceID) + " " + record.serviceVersion;
    }

    std::ptrdiff_t m_nTaken = 0;
    char m_Version[12] = "before";
};

/// A look-up that fails: how, the call and the code that are logged, and which calls are made.
struct LookUp {
    void (*prepare)(CPlatformDouble&);
    const char* failed;
    int code;
    Calls calls;
};
using CLookUpStepTest = CTableTest<CServiceLookUpTest, LookUp>;

TEST_P(CLookUpStepTest, DestroysWhatItGotAndLeavesAnEmptyVersion) {
    Case().prepare(m_Platform);
    EXPECT_EQ(RecordedIdentity(), "org.example.app ");
    EXPECT_EQ(TakeCalls(), Case().calls);
    EXPECT_TRUE(Error(std::string(Case().failed) + " error : " + std::to_string(Case().code)));
}

const Named<LookUp> kFailedLookUps[] = {
    {"AppFails", {[](auto& p) { p.appInfoResult = 2; }, kApp, 2, {kApp}}},
    {"AppIsNull", {[](auto& p) { p.appInfoNull = true; }, kApp, 0, {kApp}}},
    {"PackageIdFails", {[](auto& p) { p.pkgIdResult = 3; }, kPkgId, 3, kUpToPkgId}},
    {"PackageIdIsNull", {[](auto& p) { p.pkgIdNull = true; }, kPkgId, 0, kUpToPkgId}},
    {"PackageFails", {[](auto& p) { p.pkgInfoResult = 4; }, kPkg, 4, kUpToPkg}},
    {"PackageIsNull", {[](auto& p) { p.pkgInfoNull = true; }, kPkg, 0, kUpToPkg}},
    {"VersionFails", {[](auto& p) { p.versionResult = -5; }, kVersion, -5, kAll}},
    {"VersionIsNull", {[](auto& p) { p.versionNull = true; }, kVersion, 0, kAll}},
};
INSTANTIATE_TEST_SUITE_P(EachStep, CLookUpStepTest, testing::ValuesIn(kFailedLookUps), kByName);

// The platform knows this application for the calling user only.
TEST_F(CServiceLookUpTest, VersionIsFoundAndLogged) {
    EXPECT_TRUE(Collector().GetServiceVersion("org.example.app", m_Version, sizeof(m_Version)));
    EXPECT_STREQ(m_Version, "1.2.3");
    EXPECT_EQ(m_Platform.CountLog(LOGSVC_DEBUG, kTag, "pServiceVersion : 1.2.3"), 2U);
    EXPECT_EQ(m_Platform.AskedApp(), "org.example.app");
}

TEST_F(CServiceLookUpTest, NullsAreRefusedAndLogged) {
    CTYDataCollector& collector = Collector();
    TakeCalls();
    EXPECT_FALSE(collector.GetServiceVersion("org.example.app", nullptr, 12));
    EXPECT_EQ(TakeCalls(), kAll);
    EXPECT_TRUE(Error("pServiceVersion is NULL, so can not strncpy"));
    EXPECT_FALSE(collector.GetServiceVersion(nullptr, m_Version, sizeof(m_Version)));
    EXPECT_EQ(TakeCalls(), Calls{});
    EXPECT_TRUE(Error("pAppID is NULL"));
    EXPECT_STREQ(m_Version, "before");
}

TEST_F(CServiceLookUpTest, NullApplicationIsLoggedAndLeavesRecordsWithoutOne) {
    MakeCollector(nullptr);
    EXPECT_TRUE(Error("pServiceID is NULL."));
    ASSERT_TRUE(m_Platform.WaitForLog("Sender thread start done"));
    EXPECT_EQ(RecordedIdentity(), " ");
}

TEST_F(CServiceLookUpTest, LongTextsAreCutToTheirFields) {
    m_Platform.version = "123456789012345";
    MakeCollector(std::string(60, 'a').c_str());
    ASSERT_TRUE(m_Platform.WaitForLog("Sender thread start done"));
    EXPECT_EQ(RecordedIdentity(), std::string(49, 'a') + " 12345678901");
}

TEST_F(CServiceLookUpTest, IdentifierOfFortyNineCharactersIsWholeAndALongerOneIsCutFirst) {
    Collector().SetServiceID(std::string(60, 'a').c_str());
    EXPECT_EQ(m_Platform.AskedApp(), std::string(49, 'a'));
    Collector().SetServiceID(std::string(49, 'b').c_str());
    EXPECT_EQ(RecordedIdentity(), std::string(49, 'b') + " 1.2.3");
}

TEST_F(CServiceLookUpTest, ShortBufferIsFilledToItsLengthAndNotTerminated) {
    EXPECT_TRUE(Collector().GetServiceVersion("org.example.app", m_Version, 3));
    EXPECT_STREQ(m_Version, "1.2ore");
    EXPECT_EQ(RecordedIdentity(), "org.example.app 1.2.3");
}

TEST_F(CServiceLookUpTest, VersionOfElevenCharactersWithAPositiveCodeIsWhole) {
    m_Platform.versionResult = 5;
    m_Platform.version = "12345678901";
    EXPECT_EQ(RecordedIdentity(), "org.example.app 12345678901");
}

TEST_F(CServiceLookUpTest, VersionStaysWhenALaterLookUpFails) {
    Collector().SetServiceVersion("9.9");
    m_Platform.appInfoResult = -1;
    Collector().SetServiceID("org.example.app");
    EXPECT_EQ(RecordedIdentity(), "org.example.app 9.9");
}

TEST_F(CCollectorTest, CurrentTimeIsTheWallClocksAndZeroIfThatFails) {
    m_Clock.SetRealTime(1234567890, 987654321);
    for (const bool fails : {false, true}) {
        TYTime time{1, 2};
        m_Clock.FailRealTime(fails);
        EXPECT_EQ(Collector().GetCurrentTime(&time), !fails);
        EXPECT_EQ(time.sec, fails ? 0 : 1234567890);
        EXPECT_EQ(time.nsec, fails ? 0 : 987654321);
    }
    EXPECT_TRUE(Error("clock_gettime failed!!!"));
}

}  // namespace
