// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// A player that does what its arguments say and prints what a viewer sees; see Truth.h. It plays
// with playbin3 into sinks that show nothing, and pauses for buffering, as players do.
//
// Usage: tallyra-gst-scenario-player [OPTION...] URI
//
//   --with ELEMENT    plays with playbin in place of playbin3
//   --sink ELEMENT    shows the picture, and does not print each frame then
//   --steady          does not pause for buffering
//   --unobserved      attaches no observer
//   --metronome       says when a thread ran late, at some cost
//   --next URI        plays this afterwards, without a gap
//   --again SECONDS   after the first error, stops and plays again this much later
//   --at TIME:ACTION  does this TIME seconds after the start: pause, play, seek=SECONDS, dispose
//                     (stops and ends), close (ends without stopping)

#include "Metronome.h"
#include "Truth.h"

#include <tallyra-gst/tallyra-gst.hpp>

#include <unistd.h>

#include <cmath>
#include <deque>
#include <optional>
#include <string>
#include <utility>

namespace {

// A viewer looks at the list of films for a while before leaving the application.
constexpr gulong kLeavingUs = 400'000;

struct Action {
    double time;
    std::string what;
};

struct Arguments {
    std::string player = "playbin3";
    std::string sink = "fakesink";
    std::string next;
    std::string uri;
    double again = 0;
    bool pausing = true;
    bool observed = true;
    bool metronome = false;
    std::deque<Action> actions;
};

Arguments Parse(std::deque<std::string> words) {
    Arguments arguments;
    const auto take = [&words] {
        const std::string word = words.at(0);
        words.pop_front();
        return word;
    };
    while (!words.empty()) {
        const std::string word = take();
        if (word == "--with") {
            arguments.player = take();
        } else if (word == "--sink") {
            arguments.sink = take();
        } else if (word == "--next") {
            arguments.next = take();
        } else if (word == "--again") {
            arguments.again = std::stod(take());
        } else if (word == "--steady") {
            arguments.pausing = false;
        } else if (word == "--unobserved") {
            arguments.observed = false;
        } else if (word == "--metronome") {
            arguments.metronome = true;
        } else if (word == "--at") {
            const std::string action = take();
            const auto colon = action.find(':');
            arguments.actions.push_back(
                {std::stod(action.substr(0, colon)), action.substr(colon + 1)});
        } else {
            arguments.uri = word;
        }
    }
    return arguments;
}

/// Threads: the main thread; handlers of signals enter on streaming threads and touch only m_Truth
/// and what is set once.
class CPlayer {
  public:
    explicit CPlayer(Arguments arguments)
        : m_Arguments(std::move(arguments)),
          m_pPipeline(GST_ELEMENT(gst_object_ref_sink(
              gst_element_factory_make(m_Arguments.player.c_str(), "player")))) {
        g_object_set(m_pPipeline, "uri", m_Arguments.uri.c_str(), "video-sink", MakeVideoSink(),
                     "audio-sink", MakeSink("fakesink", &OnSound), nullptr);
        if (!m_Arguments.next.empty()) {
            g_signal_connect(m_pPipeline, "about-to-finish", G_CALLBACK(&OnAboutToFinish), this);
        }
    }
    CPlayer(const CPlayer&) = delete;
    CPlayer& operator=(const CPlayer&) = delete;
    ~CPlayer() { gst_object_unref(m_pPipeline); }

    /// Plays to the end. @return whether the pipeline has been stopped
    bool Run() {
        m_nStart = g_get_monotonic_time();
        SetState(GST_STATE_PLAYING, "start");
        GstBus* pBus = gst_element_get_bus(m_pPipeline);
        while (!m_bDone) {
            GstMessage* pMessage = gst_bus_timed_pop(pBus, 5 * GST_MSECOND);
            if (pMessage != nullptr) {
                Handle(pMessage);
                gst_message_unref(pMessage);
            }
            ActInTime();
            LookAtSink();
        }
        gst_object_unref(pBus);
        return m_bStopped;
    }

    GstElement* Pipeline() const { return m_pPipeline; }
    bool IsObserved() const { return m_Arguments.observed; }

  private:
    GstElement* MakeVideoSink() {
        if (m_Arguments.sink == "fakesink") {
            return MakeSink("fakesink", &OnPicture);
        }
        return m_pRealSink = gst_element_factory_make(m_Arguments.sink.c_str(), nullptr);
    }
    GstElement* MakeSink(const char* pElement,
                         void (*pHandler)(GstElement*, GstBuffer*, GstPad*, CPlayer*)) {
        GstElement* pSink = gst_element_factory_make(pElement, nullptr);
        g_object_set(pSink, "sync", TRUE, "signal-handoffs", TRUE, nullptr);
        g_signal_connect(pSink, "handoff", G_CALLBACK(pHandler), this);
        return pSink;
    }

    static void OnPicture(GstElement*, GstBuffer* pBuffer, GstPad* pPad, CPlayer* pThis) {
        pThis->m_Truth.Picture(pBuffer, pPad);
    }
    static void OnSound(GstElement*, GstBuffer*, GstPad*, CPlayer* pThis) {
        if (!pThis->m_bHeard) {
            pThis->m_bHeard = true;
            CTruth::Say("sound");
        }
    }
    static void OnAboutToFinish(GstElement* pPipeline, CPlayer* pThis) {
        if (!pThis->m_bContinued) {
            pThis->m_bContinued = true;
            g_object_set(pPipeline, "uri", pThis->m_Arguments.next.c_str(), nullptr);
        }
    }

    void SetState(GstState state, const char* pWhy) {
        CTruth::Say("call", std::string(",\"state\":\"") + gst_element_state_get_name(state) +
                                "\",\"why\":\"" + pWhy + "\"");
        gst_element_set_state(m_pPipeline, state);
    }

    void Handle(GstMessage* pMessage) {
        if (GST_MESSAGE_TYPE(pMessage) == GST_MESSAGE_BUFFERING && m_Arguments.pausing) {
            int percent = 0;
            gst_message_parse_buffering(pMessage, &percent);
            Buffer(percent);
        } else if (GST_MESSAGE_TYPE(pMessage) == GST_MESSAGE_EOS) {
            CTruth::Say("eos");
            Stop("eos");
        } else if (GST_MESSAGE_TYPE(pMessage) == GST_MESSAGE_ERROR) {
            SayError(pMessage);
            StopAfterError();
        }
    }
    void Buffer(int percent) {
        const bool buffering = percent < 100;
        if (buffering != m_bBuffering) {
            m_bBuffering = buffering;
            if (!m_bPaused) {
                SetState(buffering ? GST_STATE_PAUSED : GST_STATE_PLAYING, "buffering");
            }
        }
    }
    void SayError(GstMessage* pMessage) {
        GError* pError = nullptr;
        gst_message_parse_error(pMessage, &pError, nullptr);
        CTruth::Say("error", std::string(",\"domain\":\"") + g_quark_to_string(pError->domain) +
                                 "\",\"code\":" + std::to_string(pError->code));
        g_printerr("%s\n", pError->message);
        g_error_free(pError);
    }
    void Stop(const char* pWhy) {
        SetState(GST_STATE_NULL, pWhy);
        m_Truth.Last();
        m_bStopped = true;
        m_bDone = true;
    }
    void StopAfterError() {
        Stop("error");
        if (m_Arguments.again > 0) {
            m_Arguments.actions.push_front({Now() + m_Arguments.again, "play"});
            m_Arguments.again = 0;
            m_bBuffering = false;
            m_bDone = false;
        }
    }

    /// @return seconds since the start
    double Now() const { return static_cast<double>(g_get_monotonic_time() - m_nStart) / 1e6; }
    void ActInTime() {
        while (!m_bDone && !m_Arguments.actions.empty() && m_Arguments.actions[0].time <= Now()) {
            const std::string action = m_Arguments.actions[0].what;
            m_Arguments.actions.pop_front();
            Act(action);
        }
    }
    void Act(const std::string& action) {
        if (action == "pause" || action == "play") {
            m_bPaused = action == "pause";
            SetState(m_bPaused ? GST_STATE_PAUSED : GST_STATE_PLAYING, "viewer");
        } else if (action.starts_with("seek=")) {
            const double target = std::stod(action.substr(5));
            CTruth::Say("seek", ",\"target\":" + std::to_string(std::lround(target * 1000)));
            gst_element_seek_simple(
                m_pPipeline, GST_FORMAT_TIME,
                static_cast<GstSeekFlags>(GST_SEEK_FLAG_FLUSH | GST_SEEK_FLAG_KEY_UNIT),
                static_cast<gint64>(target * GST_SECOND));
        } else if (action == "dispose") {
            Stop("dispose");
        } else if (action == "close") {
            CTruth::Say("close");
            m_bDone = true;
        }
    }

    // A sink that shows pictures tells only their number.
    void LookAtSink() {
        if (m_pRealSink == nullptr || m_bSeen || RenderedFrames() == 0) {
            return;
        }
        m_bSeen = true;
        CTruth::Say("picture");
    }
    guint64 RenderedFrames() const {
        guint64 frames = 0;
        GstStructure* pStats = nullptr;
        g_object_get(m_pRealSink, "stats", &pStats, nullptr);
        gst_structure_get_uint64(pStats, "rendered", &frames);
        gst_structure_free(pStats);
        return frames;
    }

    Arguments m_Arguments;
    GstElement* const m_pPipeline;
    GstElement* m_pRealSink = nullptr;
    CTruth m_Truth;
    std::int64_t m_nStart = 0;
    bool m_bPaused = false;  ///< by the viewer
    bool m_bBuffering = false;
    bool m_bSeen = false;
    bool m_bStopped = false;
    bool m_bDone = false;
    // Of the streaming threads.
    bool m_bHeard = false;
    bool m_bContinued = false;
};

/// Returns once the pipeline has been stopped.
void Play(Arguments arguments) {
    std::optional<CMetronome> metronome;
    if (arguments.metronome) {
        metronome.emplace();
    }
    CPlayer player(std::move(arguments));
    tallyra::GstObserver pObserver;
    if (player.IsObserved()) {
        pObserver = tallyra::AttachGstObserver(player.Pipeline(), "org.example.scenario");
    }
    if (!player.Run()) {
        // Streaming threads still run, as in an application that the viewer has closed.
        pObserver.reset();
        _exit(0);
    }
    g_usleep(kLeavingUs);
}

}  // namespace

int main(int argc, char** argv) {
    gst_init(nullptr, nullptr);
    Play(Parse({argv + 1, argv + argc}));
    // A tracer of leaks now tells what is left.
    gst_deinit();
}
