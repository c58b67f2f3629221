// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// A host that loads, uses and unloads the library many times.

#include <tallyra/ITYDataCollector.h>

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <memory>

namespace {

using Factory = ITYDataCollector* (*)(const char*, TY_PLAYER_ID);

constexpr const char* kFactory = "_Z26GetTYDataCollectorInstancePKc12TY_PLAYER_ID";

std::size_t Threads() {
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
}

bool Use(const char* pPath) {
    void* pLibrary = dlopen(pPath, RTLD_NOW | RTLD_LOCAL);
    if (pLibrary == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        return false;
    }
    const auto factory = reinterpret_cast<Factory>(dlsym(pLibrary, kFactory));
    std::unique_ptr<ITYDataCollector> collector(factory("org.example.host", TY_PLAYER_NATIVE));
    collector->SendMediaEvent(TY_EVENT_PAUSE, 0, 0);
    collector.reset();
    return dlclose(pLibrary) == 0;
}

}  // namespace

/// Usage: tallyra-loader LIBRARY TIMES
int main(int argc, char** argv) {
    if (argc != 3) {
        return 2;
    }
    const int times = std::atoi(argv[2]);
    for (int i = 0; i < times; ++i) {
        if (!Use(argv[1])) {
            return 1;
        }
    }
    // GLib keeps its own worker threads. One thread per load would be the library's.
    if (Threads() > static_cast<std::size_t>(times) / 10) {
        std::fprintf(stderr, "%zu threads remain\n", Threads());
        return 1;
    }
    return 0;
}
