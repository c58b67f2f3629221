// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The program "tallyra-stress-player": one playback. It reports its first FIRST events, waits for
// end-of-file on DESCRIPTOR and then reports the others up to EVENTS at once.
//
//     tallyra-stress-player APPLICATION FIRST EVENTS DESCRIPTOR

#include <tallyra/ITYDataCollector.h>

#include <glib-unix.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

namespace {

constexpr auto kFreeEvent = static_cast<TY_EVENT_TYPE>(99);

struct Player {
    ITYDataCollector* pCollector;
    GMainLoop* pLoop;
    int reported;
    int events;

    void ReportUntil(int count) {
        for (; reported < count; ++reported) {
            pCollector->SendMediaEvent(kFreeEvent, reported, -reported);
        }
    }
};

gboolean OnGo(int, GIOCondition, gpointer pData) {
    auto* pPlayer = static_cast<Player*>(pData);
    pPlayer->ReportUntil(pPlayer->events);
    pPlayer->pCollector->SendMediaEvent(TY_EVENT_STOP, 0, 0);
    g_main_loop_quit(pPlayer->pLoop);
    return G_SOURCE_REMOVE;
}

void Play(const char* pApplication, int first, int events, int fd) {
    const std::unique_ptr<ITYDataCollector> collector(
        GetTYDataCollectorInstance(pApplication, TY_PLAYER_NATIVE));
    std::string url = std::string("https://video.example.org/") + pApplication;
    CTYContentInfo info(&url, 0);
    info.SetTitle(std::string("Title of ") + pApplication);
    collector->SetContentInfo(&info);
    Player player{collector.get(), g_main_loop_new(nullptr, FALSE), 0, events};
    g_unix_fd_add(fd, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP), &OnGo, &player);
    collector->SendMediaEvent(TY_EVENT_START, 0, 0);
    player.ReportUntil(first);
    g_main_loop_run(player.pLoop);
    g_main_loop_unref(player.pLoop);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::fprintf(stderr, "tallyra-stress-player: expects four arguments\n");
        return 2;
    }
    Play(argv[1], std::atoi(argv[2]), std::atoi(argv[3]), std::atoi(argv[4]));
    return 0;
}
