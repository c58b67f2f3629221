// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PlaybackSearch.h"

namespace {

constexpr int kMostListed = 10;

}  // namespace

std::vector<std::string> FindPlaybacks(CTYDatabase& database, const std::string& begin) {
    CTYStatement exact(database, "SELECT 1 FROM playbacks WHERE playback_id = ?");
    if (exact.First(begin)) {
        return {begin};
    }
    if (begin.empty()) {
        return {};
    }
    // The first condition lets SQLite search its index.
    CTYStatement longer(
        database,
        "SELECT DISTINCT playback_id FROM playbacks WHERE playback_id >= ?1 "
        "AND substr(playback_id, 1, length(?1)) = ?1 ORDER BY playback_id LIMIT ?2");
    longer.Begin(begin, kMostListed + 1);
    std::vector<std::string> identifiers;
    while (longer.Step()) {
        identifiers.emplace_back(longer.Text(0));
    }
    return identifiers;
}

std::optional<int> CompletePlayback(const Context& context, CTYDatabase& database, Filter& filter) {
    if (filter.playback.empty()) {
        return std::nullopt;
    }
    const auto found = FindPlaybacks(database, filter.playback);
    if (found.size() > 1) {
        return ReportSearch(context, filter.playback, found);
    }
    filter.playback = found.empty() ? filter.playback : found.front();
    return std::nullopt;
}

int ReportSearch(const Context& context, const std::string& begin,
                 const std::vector<std::string>& found) {
    if (found.empty()) {
        context.errors << "tallyra: no playback " << Printable(begin) << "\n";
        return EXIT_NOT_FOUND;
    }
    context.errors << "tallyra: several playbacks begin with " << Printable(begin) << ":\n";
    for (std::size_t i = 0; i < found.size(); ++i) {
        const bool isRest = i == static_cast<std::size_t>(kMostListed);
        context.errors << "  " << (isRest ? "..." : Printable(found[i])) << "\n";
    }
    return EXIT_USAGE;
}
