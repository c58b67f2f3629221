// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"
#include "tallyra/ITYDataCollector.h"

namespace {

static_assert(std::is_same_v<std::underlying_type_t<TY_EVENT_TYPE>, int>);
static_assert(std::is_same_v<std::underlying_type_t<TY_ERROR_TYPE>, int>);
static_assert(std::is_same_v<std::underlying_type_t<TY_DRM_TYPE>, int>);
static_assert(std::is_same_v<std::underlying_type_t<TY_CONTENT_TYPE>, int>);
static_assert(std::is_same_v<std::underlying_type_t<TY_PLAYER_ID>, int>);
static_assert(TY_EVENT_START == 1 && TY_EVENT_STOP == 2 && TY_EVENT_PAUSE == 3);
static_assert(TY_EVENT_BUFFERING_START == 4 && TY_EVENT_BUFFERING_END == 5);
static_assert(TY_EVENT_RENDER_START == 6 && TY_EVENT_RESUME == 7 && TY_EVENT_PLAYBACK_TIME == 8);
static_assert(TY_EVENT_SEEK == 9 && TY_EVENT_SEEK_COMPLETE == 10 && TY_EVENT_PLAYING_TIME == 20);
static_assert(TY_ERROR_URL_CHANGED == 201 && TY_ERROR_BUFFERING_MISMATCH == 202);
static_assert(TY_ERROR_DUPLICATED_START == 203 && TY_ERROR_PLAYBACK_TIME_JUMP == 204);
static_assert(TY_ERROR_DUPLICATED_RENDER_START == 205);

class CInterfaceTest : public CCollectorTest {
  protected:
    /// Calls an operation through the raw table, as an older player's binary does.
    template <class Result, class... Arguments>
    Result CallSlot(int slot, Arguments... arguments) {
        ITYDataCollector* pInterface = &Collector();
        void* pFunction = (*reinterpret_cast<void***>(pInterface))[slot];
        return reinterpret_cast<Result (*)(ITYDataCollector*, Arguments...)>(pFunction)(
            pInterface, arguments...);
    }
};

TEST_F(CInterfaceTest, SlotsTwoToEightSetAndGetTheDescription) {
    std::string url = "u";
    CTYContentInfo info(&url, 0);
    CallSlot<void, const char*>(2, "7.7");
    CallSlot<void, CTYContentInfo*>(3, &info);
    CallSlot<void, int>(4, 55);
    CallSlot<void, TY_DRM_TYPE>(5, TY_DRM_WIDEVINE);
    CallSlot<void, TY_CONTENT_TYPE>(6, TY_CONTENT_LIVE);
    EXPECT_EQ(CallSlot<TY_DRM_TYPE>(7), TY_DRM_WIDEVINE);
    EXPECT_EQ(CallSlot<TY_CONTENT_TYPE>(8), TY_CONTENT_LIVE);
    Event(TY_EVENT_START);
    const TYMediaData record = Reported().at(0);
    EXPECT_STREQ(record.serviceVersion, "7.7");
    EXPECT_EQ(record.content.duration, 55);
}

TEST_F(CInterfaceTest, SlotsNineToElevenReport) {
    SetContent();
    CallSlot<void, TY_EVENT_TYPE, int, int>(9, TY_EVENT_START, 0, 4);
    CallSlot<void, TY_ERROR_TYPE>(10, kFreeError);
    EXPECT_TRUE((CallSlot<bool, int, int, std::string>(11, 100, 6, "text")));
    EXPECT_EQ(ReportedEvents(), (Reports{{TY_EVENT_START, 0, 4}, {kFreeError}, {100, 6}}));
}

TEST_F(CInterfaceTest, SlotTwelveReadsTheVersionWhichIsAlsoInTheFirstTwoFields) {
    int major = 0;
    int minor = 0;
    EXPECT_TRUE((CallSlot<bool, int*, int*>(12, &major, &minor)));
    EXPECT_EQ(major, 1);
    EXPECT_EQ(minor, 2);
    EXPECT_EQ(m_Platform.CountLog(LOGSVC_INFO, kTag, "ty interface version 1.2"), 2U);
    const auto* pFields =
        reinterpret_cast<const int*>(reinterpret_cast<const char*>(&Collector()) + sizeof(void*));
    EXPECT_EQ(pFields[0], 1);
    EXPECT_EQ(pFields[1], 2);
}

TEST_F(CInterfaceTest, SlotOneDeletes) {
    Collector();
    ITYDataCollector* pInterface = m_pCollector.release();
    void* pFunction = (*reinterpret_cast<void***>(pInterface))[1];
    reinterpret_cast<void (*)(ITYDataCollector*)>(pFunction)(pInterface);
    EXPECT_TRUE(Info("CTYDataCollector Destroy >>"));
}

TEST_F(CInterfaceTest, VersionWithANullPointerWritesNothing) {
    int number = 77;
    EXPECT_FALSE(Collector().GetVersion(nullptr, &number));
    EXPECT_FALSE(Collector().GetVersion(&number, nullptr));
    EXPECT_EQ(number, 77);
    EXPECT_EQ(m_Platform.CountLog(LOGSVC_ERROR, kTag, "input paramter is null..."), 2U);
}

TEST_F(CInterfaceTest, FactoryMakesANewCollectorEachTime) {
    // The collectors work although no bus listens at this address.
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    const std::unique_ptr<ITYDataCollector> first(
        GetTYDataCollectorInstance("org.example.app", TY_PLAYER_NATIVE));
    const std::unique_ptr<ITYDataCollector> second(
        GetTYDataCollectorInstance("org.example.app", TY_PLAYER_NATIVE));
    EXPECT_NE(first, second);
    EXPECT_EQ(m_Platform.CountLog("Analyzer thread start done"), 2U);
}

TEST(ContentInfo, StartsUnset) {
    std::string url = "u";
    const CTYContentInfo info(&url, 9);
    EXPECT_EQ(info.GetURL(), "u");
    EXPECT_EQ(info.GetStartTime(), 9);
    EXPECT_EQ(info.GetDuration(), 0);
    EXPECT_EQ(info.GetDrmType(), -1);
    EXPECT_EQ(info.GetContentType(), -1);
    EXPECT_EQ(info.GetTitle() + info.GetGenre() + info.GetChannelID() + info.GetCustomInfo(), "");
}

TEST(ContentInfo, ReturnsWhatWasSetExceptCustomData) {
    CTYContentInfo info(nullptr, 0);
    info.SetChannelID("c");
    info.SetTitle("t");
    info.SetGenre("g");
    info.SetCustomInfo("i");
    info.SetCustomData("key", "value");
    info.SetDuration(5);
    EXPECT_EQ(info.GetURL(), "");
    EXPECT_EQ(info.GetChannelID(), "c");
    EXPECT_EQ(info.GetTitle(), "t");
    EXPECT_EQ(info.GetGenre(), "g");
    EXPECT_EQ(info.GetCustomInfo(), "i");
    EXPECT_EQ(info.GetCustomData(), "");
    EXPECT_EQ(info.GetDuration(), 5);
}

TEST(ContentInfo, TypesKeepTheirLowByte) {
    CTYContentInfo info(nullptr, 0);
    info.SetDrmType(static_cast<TY_DRM_TYPE>(300));
    info.SetContentType(static_cast<TY_CONTENT_TYPE>(255));
    EXPECT_EQ(info.GetDrmType(), 300 - 256);
    EXPECT_EQ(info.GetContentType(), -1);
}

}  // namespace
