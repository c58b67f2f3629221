// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "FailingAllocations.h"
#include "Sanitizers.h"
#include "TYPipelineWatch.h"

#include <gmock/gmock.h>
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <memory>
#include <new>
#include <string>
#include <variant>
#include <vector>

namespace {

using testing::IsEmpty;

/// A pipeline with a sink, and a watch of it. Nothing plays.
class CPipelineWatchTest : public testing::Test {
  protected:
    static void SetUpTestSuite() { gst_init(nullptr, nullptr); }

    CPipelineWatchTest() : m_pPipeline(gst_pipeline_new("watched")) {
        gst_object_ref_sink(m_pPipeline);
        m_pSink = gst_element_factory_make("fakesink", nullptr);
        gst_bin_add(GST_BIN(m_pPipeline), m_pSink);
        m_pPad = gst_element_get_static_pad(m_pSink, "sink");
        m_pWatch = std::make_unique<CTYPipelineWatch>(m_pPipeline, m_pQueue);
        m_pWatch->Connect(m_pPipeline);
        gst_pad_set_active(m_pPad, TRUE);
    }
    ~CPipelineWatchTest() override {
        if (m_pWatch != nullptr) {
            m_pWatch->Disconnect();
        }
        gst_pad_set_active(m_pPad, FALSE);
        gst_object_unref(m_pPad);
        gst_clear_object(&m_pPipeline);
    }

    /// @return all events of this kind since the last call of this function
    template <class What>
    std::vector<What> Take() {
        std::vector<What> found;
        for (const TYGstEvent& event : m_pQueue->Wait(CTYEventQueue::Now())) {
            if (const What* pWhat = std::get_if<What>(&event.what)) {
                found.push_back(*pWhat);
            }
        }
        return found;
    }
    void Post(GstMessage* pMessage) { gst_element_post_message(m_pPipeline, pMessage); }
    void PostBuffering(int percent) {
        Post(gst_message_new_buffering(GST_OBJECT(m_pSink), percent));
    }
    void SendToSink(GstEvent* pEvent) { gst_pad_send_event(m_pPad, pEvent); }

    GstElement* m_pPipeline;
    GstElement* m_pSink;
    GstPad* m_pPad;
    std::shared_ptr<CTYEventQueue> m_pQueue = std::make_shared<CTYEventQueue>();
    std::unique_ptr<CTYPipelineWatch> m_pWatch;
};

TEST_F(CPipelineWatchTest, OnlyChangesOfTheBufferAreHandedOver) {
    for (const int percent : {0, 10, 50, 100, 100, 99}) {
        PostBuffering(percent);
    }
    const auto all = Take<TYBuffering>();
    ASSERT_EQ(all.size(), 3U);
    EXPECT_TRUE(all[0].isLow);
    EXPECT_FALSE(all[1].isLow);
    EXPECT_TRUE(all[2].isLow);
}

// As the tracer finds it, before an application's first change of state.
TEST_F(CPipelineWatchTest, TheUriOfAPlayerOnItsWayToPlayingIsKnown) {
    GstElement* pPlayer = gst_element_factory_make("playbin3", nullptr);
    gst_object_ref_sink(pPlayer);
    g_object_set(pPlayer, "uri", "nowhere://film", nullptr);
    GST_STATE_PENDING(pPlayer) = GST_STATE_PLAYING;
    CTYPipelineWatch watch(pPlayer, m_pQueue);
    watch.Connect(pPlayer);
    GST_STATE_PENDING(pPlayer) = GST_STATE_VOID_PENDING;
    EXPECT_EQ(watch.FindUri(), "nowhere://film");
    watch.Disconnect();
    gst_object_unref(pPlayer);
}

TEST_F(CPipelineWatchTest, AnErrorHasItsHttpStatus) {
    GError* pError = g_error_new(GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_READ, "Forbidden");
    Post(gst_message_new_error_with_details(
        GST_OBJECT(m_pSink), pError, "http://user@example.org/secret",
        gst_structure_new("details", "http-status-code", G_TYPE_UINT, 403U, nullptr)));
    g_error_free(pError);
    const auto all = Take<TYGstError>();
    ASSERT_EQ(all.size(), 1U);
    EXPECT_EQ(all[0].domain, "gst-resource-error-quark");
    EXPECT_EQ(all[0].message, "Forbidden");
    EXPECT_EQ(all[0].httpStatus, 403);
}

TEST_F(CPipelineWatchTest, OnlyThePipelinesOwnStateIsHandedOver) {
    Post(gst_message_new_state_changed(GST_OBJECT(m_pSink), GST_STATE_READY, GST_STATE_PAUSED,
                                       GST_STATE_VOID_PENDING));
    Post(gst_message_new_state_changed(GST_OBJECT(m_pPipeline), GST_STATE_PAUSED, GST_STATE_PLAYING,
                                       GST_STATE_VOID_PENDING));
    const auto all = Take<TYStateChange>();
    ASSERT_EQ(all.size(), 1U);
    EXPECT_EQ(all[0].now, TYPipelineState::PLAYING);
}

TEST_F(CPipelineWatchTest, StatisticsNameTheVariant) {
    Post(gst_message_new_element(GST_OBJECT(m_pSink),
                                 gst_structure_new("adaptive-streaming-statistics", "bitrate",
                                                   G_TYPE_INT, 1390400, nullptr)));
    const auto all = Take<TYVariant>();
    ASSERT_EQ(all.size(), 1U);
    EXPECT_EQ(all[0].kbps, 1390);
}

TEST_F(CPipelineWatchTest, ASeekAtTheSinkHasItsTarget) {
    gst_pad_push_event(
        m_pPad, gst_event_new_seek(1, GST_FORMAT_TIME, GST_SEEK_FLAG_FLUSH, GST_SEEK_TYPE_SET,
                                   20 * GST_SECOND, GST_SEEK_TYPE_NONE, 0));
    const auto all = Take<TYSeek>();
    ASSERT_EQ(all.size(), 1U);
    EXPECT_EQ(all[0].target, TYSeek::Target::POSITION);
    EXPECT_EQ(all[0].position, 20'000);
    EXPECT_TRUE(all[0].isFlushing);
}

TEST_F(CPipelineWatchTest, ABackwardSeekIsToItsStop) {
    gst_pad_push_event(
        m_pPad, gst_event_new_seek(-2, GST_FORMAT_TIME, GST_SEEK_FLAG_FLUSH, GST_SEEK_TYPE_SET, 0,
                                   GST_SEEK_TYPE_SET, 9 * GST_SECOND));
    const auto all = Take<TYSeek>();
    ASSERT_EQ(all.size(), 1U);
    EXPECT_EQ(all[0].position, 9000);
    EXPECT_EQ(all[0].rate, -2);
}

TEST_F(CPipelineWatchTest, ASeekThatChangesTheRateAtOnceIsNoSeek) {
    gst_pad_push_event(m_pPad,
                       gst_event_new_seek(2, GST_FORMAT_TIME, GST_SEEK_FLAG_INSTANT_RATE_CHANGE,
                                          GST_SEEK_TYPE_NONE, 0, GST_SEEK_TYPE_NONE, 0));
    const auto all = m_pQueue->Wait(CTYEventQueue::Now());
    ASSERT_EQ(all.size(), 1U);
    EXPECT_EQ(std::get<TYRate>(all[0].what).rate, 2);
}

TEST_F(CPipelineWatchTest, CapsAtAVideoSinkAreTheSizeOfThePicture) {
    GstCaps* pCaps = gst_caps_from_string("video/x-raw,format=I420,width=640,height=360");
    SendToSink(gst_event_new_stream_start("stream"));
    SendToSink(gst_event_new_caps(pCaps));
    gst_caps_unref(pCaps);
    const auto all = Take<TYPictureSize>();
    ASSERT_EQ(all.size(), 1U);
    EXPECT_EQ(all[0].width, 640);
    EXPECT_EQ(all[0].height, 360);
}

TEST_F(CPipelineWatchTest, AnElementThatIsAddedLaterIsWatched) {
    GstElement* pBin = gst_bin_new(nullptr);
    GstElement* pSink = gst_element_factory_make("fakesink", nullptr);
    gst_bin_add(GST_BIN(m_pPipeline), pBin);
    gst_bin_add(GST_BIN(pBin), pSink);
    GstPad* pPad = gst_element_get_static_pad(pSink, "sink");
    gst_pad_set_active(pPad, TRUE);
    gst_pad_push_event(pPad, gst_event_new_seek(1, GST_FORMAT_TIME, GST_SEEK_FLAG_FLUSH,
                                                GST_SEEK_TYPE_SET, 0, GST_SEEK_TYPE_NONE, 0));
    gst_object_unref(pPad);
    EXPECT_EQ(Take<TYSeek>().size(), 1U);
}

TEST_F(CPipelineWatchTest, AnElementThatIsRemovedIsWatchedNoLonger) {
    gst_bin_remove(GST_BIN(m_pPipeline), GST_ELEMENT(gst_object_ref(m_pSink)));
    gst_pad_push_event(m_pPad, gst_event_new_seek(1, GST_FORMAT_TIME, GST_SEEK_FLAG_FLUSH,
                                                  GST_SEEK_TYPE_SET, 0, GST_SEEK_TYPE_NONE, 0));
    EXPECT_THAT(Take<TYSeek>(), IsEmpty());
    gst_object_unref(m_pSink);
}

TEST_F(CPipelineWatchTest, OnlyOneWatchAtATimeIsConnected) {
    CTYPipelineWatch second(m_pPipeline, m_pQueue);
    EXPECT_FALSE(second.Connect(m_pPipeline));
    second.Disconnect();
    EXPECT_TRUE(CTYPipelineWatch::IsWatched(m_pPipeline)) << "by the first";
    m_pWatch->Disconnect();
    EXPECT_TRUE(second.Connect(m_pPipeline));
}

TEST_F(CPipelineWatchTest, APipelineWithoutABusIsNotWatched) {
    m_pWatch.reset();
    gst_element_set_bus(m_pPipeline, nullptr);
    CTYPipelineWatch watch(m_pPipeline, m_pQueue);
    EXPECT_FALSE(watch.Connect(m_pPipeline));
    EXPECT_FALSE(CTYPipelineWatch::IsWatched(m_pPipeline));
}

TEST_F(CPipelineWatchTest, ADemuxersProtectionEventIsSeen) {
    GstElement* pDemuxer = gst_element_factory_make("tsdemux", nullptr);
    if (pDemuxer == nullptr) {
        GTEST_SKIP() << "no tsdemux is installed";
    }
    gst_bin_add(GST_BIN(m_pPipeline), pDemuxer);
    GstPad* pPad = gst_pad_new("video_0_0041", GST_PAD_SRC);
    gst_pad_set_active(pPad, TRUE);
    gst_element_add_pad(pDemuxer, pPad);
    GstBuffer* pData = gst_buffer_new();
    gst_pad_push_event(pPad, gst_event_new_stream_start("stream"));
    gst_pad_push_event(pPad, gst_event_new_protection("edef8ba9-79d6-4ace-a3c8-27dcd51d21ed", pData,
                                                      "isobmff/moov"));
    gst_buffer_unref(pData);
    const auto all = Take<TYProtection>();
    ASSERT_EQ(all.size(), 1U);
    EXPECT_EQ(all[0].systemId, "edef8ba9-79d6-4ace-a3c8-27dcd51d21ed");
}

// Each handler and each probe holds the queue.
TEST_F(CPipelineWatchTest, ADisconnectedWatchLeavesNoHandlerAndNoProbe) {
    EXPECT_GT(m_pQueue.use_count(), 4);
    EXPECT_TRUE(CTYPipelineWatch::IsWatched(m_pPipeline));
    m_pWatch->Disconnect();
    EXPECT_FALSE(CTYPipelineWatch::IsWatched(m_pPipeline));
    m_pWatch.reset();
    EXPECT_EQ(m_pQueue.use_count(), 1);
}

TEST_F(CPipelineWatchTest, AWatchWithoutMemoryLeavesNoHandlerAndNoProbe) {
    if (kUnderThreadSanitizer) {
        GTEST_SKIP() << "the sanitizer does not let a program replace operator new";
    }
    m_pWatch->Disconnect();
    int failures = 0;
    for (std::size_t bytes = 8; bytes <= 200; bytes += 8) {
        const auto pQueue = std::make_shared<CTYEventQueue>();
        auto pWatch = std::make_unique<CTYPipelineWatch>(m_pPipeline, pQueue);
        FailAllocationsFrom(bytes);
        try {
            pWatch->Connect(m_pPipeline);
        } catch (const std::bad_alloc&) {
            ++failures;
        }
        FailAllocationsFrom(SIZE_MAX);
        pWatch.reset();
        EXPECT_EQ(pQueue.use_count(), 1) << bytes;
        EXPECT_FALSE(CTYPipelineWatch::IsWatched(m_pPipeline)) << bytes;
        PostBuffering(10);
    }
    EXPECT_GT(failures, 3) << "at several places";
}

TEST_F(CPipelineWatchTest, ADisposedPipelineEndsTheQueue) {
    gst_clear_object(&m_pPipeline);
    EXPECT_EQ(Take<TYClosed>().size(), 1U);
    EXPECT_EQ(m_pWatch->Look(true).position, kGstUnknown);
}

TEST_F(CPipelineWatchTest, AHandlerOfTheApplicationThatDropsMessagesHidesThem) {
    GstBus* pBus = gst_element_get_bus(m_pPipeline);
    gst_bus_set_sync_handler(
        pBus,
        [](GstBus*, GstMessage* pMessage, gpointer) {
            gst_message_unref(pMessage);
            return GST_BUS_DROP;
        },
        nullptr, nullptr);
    PostBuffering(10);
    gst_bus_set_sync_handler(pBus, nullptr, nullptr, nullptr);
    gst_object_unref(pBus);
    EXPECT_THAT(Take<TYBuffering>(), IsEmpty());
}

}  // namespace
