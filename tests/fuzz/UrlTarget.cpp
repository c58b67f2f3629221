// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Target "url": the collector finds the path of any URL, as the model does.

#include "TYDataCollector.h"
#include "Target.h"
#include "doubles/FakeBus.h"
#include "doubles/FakeClock.h"
#include "model/Record.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t size) {
    // One collector for all inputs: the rule has no state.
    static CFakeBus bus;
    static CFakeClock clock;
    static CTYDataCollector collector("org.example.app", TY_PLAYER_NATIVE, bus, clock);
    const std::string url(reinterpret_cast<const char*>(pData), size);
    std::string path = url;
    collector.GetPathFromUrl(&path);
    Require(path == model::PathOf(url), "the path lies between server and query");
    return 0;
}
