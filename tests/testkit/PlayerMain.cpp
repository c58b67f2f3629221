// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The program "tallyra-kit-player": a player's test as a developer writes it with the kit. It links
// the test platform, plays a number of times with a collector of its own, and prints what became of
// each batch.
//
// Usage: tallyra-kit-player PLAYBACKS

#include "tallyra-testkit/testplatform.h"

#include <tallyra/ITYDataCollector.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

constexpr int kPatienceMs = 60'000;
constexpr int kErrorPriority = 6;

/// @return the number of the line; ends the program if it does not come
size_t Await(const char* pPart, size_t first) {
    const long index = tallyra_testplatform_wait_for_log(pPart, first, kPatienceMs);
    if (index < 0) {
        std::printf("no line with \"%s\"\n", pPart);
        std::exit(1);
    }
    return static_cast<size_t>(index);
}

/// @return the text of a line behind its place in the source
const char* TextOf(const tallyra_testplatform_line& line) {
    const char* pText = std::strstr(line.text, " > ");
    return pText == nullptr ? line.text : pText + 3;
}

void PrintErrors(size_t first, size_t end) {
    tallyra_testplatform_line line{};
    for (size_t i = first; i < end; ++i) {
        if (tallyra_testplatform_log_line(i, &line) == 0 && line.priority == kErrorPriority) {
            std::printf("  %s\n", TextOf(line));
        }
    }
}

/// @return whether a line has this text
bool HasLine(const char* pText, size_t first) {
    tallyra_testplatform_line line{};
    for (size_t i = first; tallyra_testplatform_log_line(i, &line) == 0; ++i) {
        if (std::strcmp(TextOf(line), pText) == 0) {
            return true;
        }
    }
    return false;
}

using Player = std::unique_ptr<ITYDataCollector>;

/// Makes a collector and waits until it has the answer of the service.
Player Connect(size_t first) {
    Player player(GetTYDataCollectorInstance("org.example.kit", TY_PLAYER_NATIVE));
    Await("pInfo : ", first);
    const bool allowed = HasLine("result : 1, pInfo : 1 ", first);
    Await(allowed ? "CTYDataSender thread sleep...." : "Analyzer join terminate", first);
    return player;
}

void StartPlayback(ITYDataCollector& player) {
    std::string url = "https://example.org/film.mpd";
    CTYContentInfo content(&url, 0);
    content.SetTitle("Film");
    player.SetContentInfo(&content);
    player.SendMediaEvent(TY_EVENT_START, 0, 0);
}

/// Deletes the collector, which sends what it has in one batch. @return the seconds that it took
double End(Player player) {
    const auto begin = std::chrono::steady_clock::now();
    player.reset();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

void Play(int number) {
    const size_t first = tallyra_testplatform_log_count();
    Player player = Connect(first);
    StartPlayback(*player);
    const bool queued = player->Execute(100, number, "text");
    const double seconds = End(std::move(player));
    std::printf("playback %d: %s, %s after %.1f s\n", number, queued ? "queued" : "not collected",
                HasLine("result : 1", first) ? "accepted" : "not accepted", seconds);
    PrintErrors(first, tallyra_testplatform_log_count());
}

}  // namespace

int main(int argc, char** argv) {
    const int playbacks = argc > 1 ? std::atoi(argv[1]) : 1;
    for (int i = 1; i <= playbacks; ++i) {
        Play(i);
    }
    return 0;
}
