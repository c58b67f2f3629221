// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PlaybackSource.h"
#include "TYPostgresReader.h"

#include <stdexcept>

void VisitFleetPlaybacks(const Context& context, const TYPlaybackSelection& selection,
                         PlaybackDetail detail, const PlaybackVisitor& visit) {
    const auto needed = detail == PlaybackDetail::FIGURES ? CTYPostgresReader::Detail::FIGURES
                                                          : CTYPostgresReader::Detail::TIMELINES;
    try {
        CTYPostgresReader(context.db).ScanPlaybacks(selection, context.now, needed, visit);
    } catch (const std::runtime_error& error) {
        throw std::runtime_error(std::string("cannot read the database of the fleet: ") +
                                 error.what());
    }
}
