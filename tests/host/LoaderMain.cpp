// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include <tallyra/ITYDataCollector.h>

#include <dlfcn.h>

#include <filesystem>
#include <iterator>
#include <memory>

namespace {

bool LoadUseAndUnload(const char* pPath) {
    void* pLibrary = dlopen(pPath, RTLD_NOW | RTLD_LOCAL);
    if (pLibrary == nullptr) {
        return false;
    }
    const auto factory = reinterpret_cast<decltype(&GetTYDataCollectorInstance)>(
        dlsym(pLibrary, "_Z26GetTYDataCollectorInstancePKc12TY_PLAYER_ID"));
    std::unique_ptr<ITYDataCollector> collector(factory("org.example.host", TY_PLAYER_NATIVE));
    collector->SendMediaEvent(TY_EVENT_PAUSE, 0, 0);
    collector.reset();
    return dlclose(pLibrary) == 0;
}

}  // namespace

/// Usage: tallyra-loader LIBRARY
/// A host that loads, uses and unloads the library a hundred times.
int main(int /*argc*/, char** argv) {
    for (int i = 0; i < 100; ++i) {
        if (!LoadUseAndUnload(argv[1])) {
            return 1;
        }
    }
    // GLib keeps its own worker threads. One thread per load would be the library's.
    const std::filesystem::directory_iterator threads("/proc/self/task");
    return std::distance(begin(threads), end(threads)) <= 10 ? 0 : 2;
}
