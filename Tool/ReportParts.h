// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_REPORTPARTS_H
#define TALLYRA_TOOL_REPORTPARTS_H

#include <string_view>

// The files of Tool/report and Vega, which report/Embed.cmake puts into a source of the build.

extern const std::string_view kReportPage;
extern const std::string_view kReportStyle;
extern const std::string_view kReportDefinitions;
extern const std::string_view kReportNotices;
extern const std::string_view kReportCharts;  ///< one JSON object: Vega's charts by name
extern const std::string_view kReportVega;
extern const std::string_view kReportScript;

#endif  // TALLYRA_TOOL_REPORTPARTS_H
