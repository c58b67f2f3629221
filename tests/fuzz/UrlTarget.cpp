// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Target "url": the collector finds the path of any URL. The rule is implemented a second time
// here, by splitting the URL where the collector searches in it.

#include "TYDataCollector.h"
#include "Target.h"
#include "doubles/FakeBus.h"
#include "doubles/FakeClock.h"
#include "doubles/PlatformDouble.h"

#include <optional>
#include <string>
#include <string_view>

namespace {

/// A text split at the first occurrence of a separator.
struct Pieces {
    std::string_view before;
    std::optional<std::string_view> after;
};

Pieces Split(std::string_view text, std::string_view separator) {
    for (std::size_t at = 0; at + separator.size() <= text.size(); ++at) {
        if (text.substr(at, separator.size()) == separator) {
            return {text.substr(0, at), text.substr(at + separator.size())};
        }
    }
    return {text, std::nullopt};
}

// The path follows the first slash after "scheme://" and ends before the query. A slash inside the
// query counts too. Without a slash the path is "://" and the server. Without a scheme the whole
// text is a path.
std::string ExpectedPath(std::string_view url) {
    const Pieces scheme = Split(url, "://");
    if (!scheme.after) {
        return std::string(Split(url, "?").before);
    }
    const Pieces server = Split(*scheme.after, "/");
    return server.after ? std::string(Split(*server.after, "?").before)
                        : "://" + std::string(Split(*scheme.after, "?").before);
}

// One for all inputs: the rule has no state.
CTYDataCollector& Collector() {
    static CFakeBus bus;
    static CFakeClock clock;
    static CTYDataCollector collector("org.example.app", TY_PLAYER_NATIVE, bus, clock);
    return collector;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t size) {
    const std::string url(reinterpret_cast<const char*>(pData), size);
    std::string path = url;
    Collector().GetPathFromUrl(&path);
    Require(path == ExpectedPath(url), "the path lies between server and query");
    return 0;
}
