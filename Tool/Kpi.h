// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_KPI_H
#define TALLYRA_TOOL_KPI_H

#include "Commands.h"
#include "KeyFigures.h"

struct KpiOptions {
    TYPlaybackSelection selection;
    GroupBy by = GroupBy::ALL;
};

/// Prints the key figures of each group of playbacks.
int PrintKpi(const Context& context, const KpiOptions& options);

#endif  // TALLYRA_TOOL_KPI_H
