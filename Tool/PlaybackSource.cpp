// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PlaybackSource.h"

#include "TYStorePath.h"

void VisitPlaybacks(const Context& context, const TYPlaybackSelection& selection,
                    PlaybackDetail detail, const PlaybackVisitor& visit) {
    if (IsServerUrl(context.db)) {
        VisitFleetPlaybacks(context, selection, detail, visit);
        return;
    }
    CTYDatabase database = OpenForReading(context);
    ScanPlaybacks(database, selection, context.now, visit);
}
