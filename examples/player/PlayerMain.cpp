// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The program "tallyra-player": replays a recorded playback session and reports it through
// libtallyra.

#include "Player.h"
#include "Recording.h"

#include <tallyra/ITYDataCollector.h>

#include <glib-unix.h>

#include <csignal>
#include <cstdio>
#include <fstream>
#include <memory>
#include <optional>
#include <string>

namespace {

constexpr int kFailure = 1;
constexpr int kUsage = 2;

struct Options {
    std::string recording;
    std::string appId = "org.example.player";
    double speed = 1;
    int player = TY_PLAYER_NATIVE;
    // The library looks for the service once a second. A shorter replay would end before the
    // service has answered, and its records would be dropped.
    int settleMs = 2500;
};

/// The main loop, and how long it keeps running after the last step.
struct Session {
    GMainLoop* pLoop;
    int settleMs;
};

void ReadOptions(gchar* pAppId, char** argv, Options* pOptions) {
    if (pAppId != nullptr) {
        pOptions->appId = pAppId;
        g_free(pAppId);
    }
    pOptions->recording = argv[1];
}

std::optional<Options> ParseOptions(int argc, char** argv) {
    Options options;
    gchar* pAppId = nullptr;
    const GOptionEntry entries[] = {
        {"speed", 0, 0, G_OPTION_ARG_DOUBLE, &options.speed,
         "Replay at N times the recorded speed (1)", "N"},
        {"app-id", 0, 0, G_OPTION_ARG_STRING, &pAppId,
         "Report as this application (org.example.player)", "ID"},
        {"player", 0, 0, G_OPTION_ARG_INT, &options.player, "Report as this player, 0 to 255 (1)",
         "N"},
        {"settle", 0, 0, G_OPTION_ARG_INT, &options.settleMs,
         "Keep running for MS after the last event, so that the service can answer (2500)", "MS"},
        {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr}};
    GOptionContext* pContext =
        g_option_context_new("RECORDING - replay a recorded playback session");
    g_option_context_add_main_entries(pContext, entries, nullptr);
    GError* pError = nullptr;
    const bool parsed = g_option_context_parse(pContext, &argc, &argv, &pError) != FALSE;
    g_option_context_free(pContext);
    if (!parsed || argc != 2 || !(options.speed > 0) || options.settleMs < 0) {
        std::fprintf(stderr, "tallyra-player: %s\n",
                     parsed
                         ? "needs one recording, a speed above 0 and no negative time; see --help"
                         : pError->message);
        g_clear_error(&pError);
        return std::nullopt;
    }
    ReadOptions(pAppId, argv, &options);
    return options;
}

gboolean Quit(gpointer pLoop) {
    g_main_loop_quit(static_cast<GMainLoop*>(pLoop));
    return G_SOURCE_REMOVE;
}

gboolean OnEnd(gpointer pData) {
    const auto* pSession = static_cast<Session*>(pData);
    g_timeout_add(static_cast<guint>(pSession->settleMs), &Quit, pSession->pLoop);
    return G_SOURCE_REMOVE;
}

gboolean OnInterrupt(gpointer pPlayer) {
    static_cast<CPlayer*>(pPlayer)->Stop();
    return G_SOURCE_CONTINUE;
}

void Replay(const Options& options, Recording recording) {
    const std::unique_ptr<GMainLoop, decltype(&g_main_loop_unref)> loop(
        g_main_loop_new(nullptr, FALSE), &g_main_loop_unref);
    Session session{loop.get(), options.settleMs};
    // Deleting the collector flushes queued records.
    const std::unique_ptr<ITYDataCollector> collector(GetTYDataCollectorInstance(
        options.appId.c_str(), static_cast<TY_PLAYER_ID>(options.player)));
    CPlayer player(*collector, std::move(recording), options.speed, &OnEnd, &session);
    g_unix_signal_add(SIGINT, &OnInterrupt, &player);
    g_unix_signal_add(SIGTERM, &OnInterrupt, &player);
    player.Play();
    g_main_loop_run(loop.get());
}

}  // namespace

int main(int argc, char** argv) {
    const std::optional<Options> options = ParseOptions(argc, argv);
    if (!options) {
        return kUsage;
    }
    std::ifstream file(options->recording);
    if (!file) {
        std::fprintf(stderr, "tallyra-player: cannot open %s\n", options->recording.c_str());
        return kFailure;
    }
    try {
        Replay(*options, ReadRecording(file, options->recording));
        return 0;
    } catch (const RecordingError& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return kUsage;
    }
}
