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

gboolean OnGo(int /*fd*/, GIOCondition /*condition*/, gpointer pGoes) {
    *static_cast<bool*>(pGoes) = true;
    return G_SOURCE_REMOVE;
}

void Play(const char* pApplication, int first, int events, int fd) {
    const std::unique_ptr<ITYDataCollector> collector(
        GetTYDataCollectorInstance(pApplication, TY_PLAYER_NATIVE));
    std::string url = std::string("https://video.example.org/") + pApplication;
    CTYContentInfo info(&url, 0);
    info.SetTitle(std::string("Title of ") + pApplication);
    collector->SetContentInfo(&info);
    collector->SendMediaEvent(TY_EVENT_START, 0, 0);
    bool goes = false;
    g_unix_fd_add(fd, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP), &OnGo, &goes);
    for (int i = 0; i < events; ++i) {
        while (i == first && !goes) {
            g_main_context_iteration(nullptr, TRUE);
        }
        collector->SendMediaEvent(kFreeEvent, i, -i);
    }
    collector->SendMediaEvent(TY_EVENT_STOP, 0, 0);
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
