// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PrivateBus.h"
#include "ServiceProcess.h"
#include "TemporaryFolder.h"
#include "Test.h"

#include <tallyra-gst/tallyra-gst.hpp>

#include <random>

using std::chrono::milliseconds;

namespace {

constexpr int kSteps = 25;
/// Between the seeds of two storms in one process.
constexpr unsigned kOther = 1U << 30;
/// A storm takes a second or two; under ThreadSanitizer, ten. A deadlock takes longer.
constexpr unsigned kLongestStorm = 120;

struct Unref {
    void operator()(gpointer pObject) const { gst_object_unref(pObject); }
};
using Element = std::unique_ptr<GstElement, Unref>;

unsigned Setting(const char* name, unsigned usual) {
    const char* setting = std::getenv(name);
    return setting != nullptr ? static_cast<unsigned>(std::strtoul(setting, nullptr, 10)) : usual;
}

/// An application that changes states at random, while an observer reports.
///
/// Threads: one, beside that of another storm; the pipeline's streaming threads call the observer's
/// handlers.
class CStorm {
  public:
    explicit CStorm(unsigned seed) : m_Random(seed), m_pPlayer(MakePlayer()) {
        Attach();
        LoadNext();
        g_signal_connect(m_pPlayer.get(), "about-to-finish", G_CALLBACK(OnAboutToFinish), nullptr);
    }

    void Step() {
        static constexpr std::array kStates = {GST_STATE_NULL, GST_STATE_READY, GST_STATE_PAUSED,
                                               GST_STATE_PLAYING};
        switch (Roll(10)) {
            case 0:
                Seek();
                break;
            case 1:
                Describe();
                break;
            case 2:
                m_pObserver.reset();
                Attach();
                break;
            case 3:
                LoadNext();
                break;
            default:
                gst_element_set_state(m_pPlayer.get(), kStates[Roll(kStates.size())]);
        }
        std::this_thread::sleep_for(milliseconds(Roll(60)));
    }

    /// In each order: detached while playing, after the end, or after the pipeline is gone.
    void End() {
        const std::size_t order = Roll(3);
        if (order == 0) {
            m_pObserver.reset();
        }
        gst_element_set_state(m_pPlayer.get(), GST_STATE_NULL);
        if (order == 1) {
            m_pObserver.reset();
        }
        m_pPlayer.reset();
        m_pObserver.reset();
    }

  private:
    // playbin3 of GStreamer 1.22 fails assertions of its own in such storms, observed or not.
    static Element MakePlayer() {
        Element pPlayer(
            GST_ELEMENT(gst_object_ref_sink(gst_element_factory_make("playbin", nullptr))));
        g_object_set(pPlayer.get(), "video-sink", MakeSink(), "audio-sink", MakeSink(), nullptr);
        return pPlayer;
    }

    static GstElement* MakeSink() {
        GstElement* pSink = gst_element_factory_make("fakesink", nullptr);
        g_object_set(pSink, "sync", TRUE, "qos", TRUE, nullptr);
        return pSink;
    }

    static void OnAboutToFinish(GstElement* pPlayer, gpointer /*unused*/) {
        g_object_set(pPlayer, "uri", "file://" MEDIA "/next.mp4", nullptr);
    }

    // A storm that fails as well without an observer fails by GStreamer itself.
    void Attach() {
        if (Setting("TALLYRA_STRESS_UNOBSERVED", 0) == 0) {
            m_pObserver = tallyra::AttachGstObserver(m_pPlayer.get(), "org.example.storm");
        }
    }

    std::size_t Roll(std::size_t sides) {
        return std::uniform_int_distribution<std::size_t>(0, sides - 1)(m_Random);
    }

    // A playbin takes another URI in READY.
    void LoadNext() {
        static constexpr std::array kUris = {"file://" MEDIA "/film.mp4",
                                             "file://" MEDIA "/sound.ogg",
                                             "file://" MEDIA "/missing.mp4"};
        gst_element_set_state(m_pPlayer.get(), GST_STATE_READY);
        g_object_set(m_pPlayer.get(), "uri", kUris[Roll(kUris.size())], nullptr);
    }

    // In PAUSED, a seek without flush waits for data that nobody takes.
    void Seek() {
        const auto target = static_cast<gint64>(Roll(6)) * GST_SECOND;
        gst_element_seek_simple(m_pPlayer.get(), GST_FORMAT_TIME, GST_SEEK_FLAG_FLUSH, target);
    }

    void Describe() {
        TallyraGstContent content = TALLYRA_GST_CONTENT_INIT;
        content.title = "Storm";
        content.duration = 6000;
        tallyra_gst_describe(m_pObserver.get(), &content);
    }

    std::mt19937 m_Random;
    Element m_pPlayer;
    tallyra::GstObserver m_pObserver;
};

void Rage(unsigned seed) {
    CStorm application(seed);
    for (int step = 0; step < kSteps; ++step) {
        application.Step();
    }
    application.End();
}

// The tracer "leaks" lists what is left when GStreamer ends.
class CGStreamer : public ::testing::Environment {
  public:
    void SetUp() override { gst_init(nullptr, nullptr); }
    void TearDown() override { gst_deinit(); }
};

const auto* const g_pGStreamer = ::testing::AddGlobalTestEnvironment(new CGStreamer);

}  // namespace

TEST(StateStorm, NeitherBlocksNorCrashesTheApplication) {
    const CTemporaryFolder folder;
    folder.Write("regdb.ini", "[db/tallyra]\nlog_on=1\n");
    setenv("REGDB_FILE", (folder.Path() / "regdb.ini").c_str(), 1);
    const CPrivateBus bus;
    bus.BecomeSystemBus();
    CServiceProcess service(SERVICE, bus.Address(), {"--db", folder.Path() / "store.db"});
    service.WaitUntilReady();
    const unsigned seed = Setting("TALLYRA_STRESS_SEED", std::random_device()());
    const unsigned storms = Setting("TALLYRA_STRESS_TIMES", 3);
    std::cout << "seed " << seed << '\n' << std::flush;
    for (unsigned storm = 0; storm < storms; ++storm) {
        alarm(kLongestStorm);
        std::thread other([&] { Rage(seed + storm + kOther); });
        Rage(seed + storm);
        other.join();
    }
    alarm(0);
    service.Terminate();
}
