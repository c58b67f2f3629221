// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PlaybackSource.h"

#include <stdexcept>

void VisitFleetPlaybacks(const Context& /*context*/, const TYPlaybackSelection& /*selection*/,
                         PlaybackDetail /*detail*/, const PlaybackVisitor& /*visit*/) {
    throw std::runtime_error("this build of tallyra cannot read the database of a fleet");
}
