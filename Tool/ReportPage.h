// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_REPORTPAGE_H
#define TALLYRA_TOOL_REPORTPAGE_H

#include <ostream>
#include <string>

/// Writes a report as one HTML page that loads nothing. See ReportPage.cpp.
/// @param data  JSON, as ForScriptElement writes it
void WriteReportPage(std::ostream& out, const std::string& data);

#endif  // TALLYRA_TOOL_REPORTPAGE_H
