// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// What the collector takes for the path of any URL, against the rule told by itself: split in
// pieces, where the collector searches from place to place.

#include "TYDataCollector.h"
#include "Target.h"
#include "doubles/FakeBus.h"
#include "doubles/FakeClock.h"
#include "doubles/PlatformDouble.h"

#include <optional>
#include <string>
#include <string_view>

namespace {

/// What stands before and behind the first occurrence of a separator.
struct Pieces {
    std::string_view before;
    std::optional<std::string_view> behind;
};

Pieces Split(std::string_view text, std::string_view separator) {
    for (std::size_t at = 0; at + separator.size() <= text.size(); ++at) {
        if (text.substr(at, separator.size()) == separator) {
            return {text.substr(0, at), text.substr(at + separator.size())};
        }
    }
    return {text, std::nullopt};
}

// The path is what follows the first slash behind "scheme://", without a query. The slash counts
// also when it stands in what would be the query. Without any, the server stays, and the separator
// before it. What has no scheme is a path already.
std::string ExpectedPath(std::string_view url) {
    const Pieces scheme = Split(url, "://");
    if (!scheme.behind) {
        return std::string(Split(url, "?").before);
    }
    const Pieces server = Split(*scheme.behind, "/");
    return server.behind ? std::string(Split(*server.behind, "?").before)
                         : "://" + std::string(Split(*scheme.behind, "?").before);
}

// It is made once: the rule needs no state.
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
    Require(path == ExpectedPath(url), "a URL's path is what stands between server and query");
    return 0;
}
