// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Eventually.h"
#include "TYGstObserver.h"

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <utility>

namespace {

/// What a sink does when it is asked for its position.
std::function<void()> g_WhenAsked;

// A sink that shows nothing, as an application may write one.
struct TestSink {
    GstElement parent;
};
struct TestSinkClass {
    GstElementClass parent;
};

G_DEFINE_TYPE(TestSink, test_sink, GST_TYPE_ELEMENT)

gboolean OnQuery(GstElement* /*pElement*/, GstQuery* pQuery) {
    if (GST_QUERY_TYPE(pQuery) == GST_QUERY_POSITION) {
        g_WhenAsked();
    }
    return FALSE;
}

void test_sink_class_init(TestSinkClass* pClass) {
    GST_ELEMENT_CLASS(pClass)->query = OnQuery;
    gst_element_class_set_static_metadata(GST_ELEMENT_CLASS(pClass), "test", "Sink", "test", "us");
}

void test_sink_init(TestSink* pSink) {
    GST_OBJECT_FLAG_SET(pSink, GST_ELEMENT_FLAG_SINK);
    gst_element_add_pad(GST_ELEMENT(pSink), gst_pad_new("sink", GST_PAD_SINK));
}

void Await(const std::atomic<bool>& holds) {
    ASSERT_TRUE(Eventually([&] { return holds.load(); }));
}

class CGstObserverTest : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nowhere", 1);
        gst_init(nullptr, nullptr);
    }
    CGstObserverTest() : m_pPipeline(gst_pipeline_new(nullptr)) {
        gst_object_ref_sink(m_pPipeline);
        auto* pSink = static_cast<GstElement*>(g_object_new(test_sink_get_type(), nullptr));
        gst_bin_add(GST_BIN(m_pPipeline), pSink);
        m_pObserver = std::make_unique<CTYGstObserver>(m_pPipeline, "org.example.test", 0);
    }
    ~CGstObserverTest() override {
        gst_element_set_state(m_pPipeline, GST_STATE_NULL);
        gst_object_unref(m_pPipeline);
    }
    /// Plays until the sink has been asked and this is true.
    void PlayUntil(const std::atomic<bool>& holds) {
        ASSERT_TRUE(m_pObserver->Start(m_pPipeline));
        gst_element_set_state(m_pPipeline, GST_STATE_PLAYING);
        Await(holds);
    }

    GstElement* m_pPipeline;
    std::unique_ptr<CTYGstObserver> m_pObserver;
};

// The observer's thread releases references, and so may run what an application does then.
TEST_F(CGstObserverTest, MayBeDetachedOnItsOwnThread) {
    std::atomic<bool> isDetached{false};
    g_WhenAsked = [&] {
        if (m_pObserver != nullptr) {
            CTYGstObserver::Detach(std::exchange(m_pObserver, nullptr));
            isDetached = true;
        }
    };
    PlayUntil(isDetached);
    EXPECT_FALSE(CTYPipelineWatch::IsWatched(m_pPipeline));
}

TEST_F(CGstObserverTest, IsLeftBehindWhileItWaitsForThePipeline) {
    std::atomic<bool> isAsked{false};
    std::atomic<bool> mayAnswer{false};
    std::atomic<bool> hasAnswered{false};
    g_WhenAsked = [&] {
        isAsked = true;
        Await(mayAnswer);
        hasAnswered = true;
    };
    PlayUntil(isAsked);
    const gint64 begin = g_get_monotonic_time();
    CTYGstObserver::Detach(std::move(m_pObserver), std::chrono::milliseconds(100));
    EXPECT_GE(g_get_monotonic_time() - begin, 100'000);
    EXPECT_FALSE(CTYPipelineWatch::IsWatched(m_pPipeline));
    mayAnswer = true;
    Await(hasAnswered);
}

}  // namespace
