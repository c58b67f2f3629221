// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Commands.h"
#include "OutputFile.h"
#include "PlaybackSource.h"
#include "Progress.h"
#include "ReportData.h"
#include "ReportPage.h"
#include "TYStorePath.h"
#include "TimeText.h"

namespace {

ReportJson TimeJson(const std::optional<std::int64_t>& time) {
    return time ? ReportJson(FormatTime(*time)) : ReportJson();
}

// The devices of a fleet count their losses themselves.
ReportJson ReadLosses(const Context& context, const TYPlaybackSelection& selection) {
    if (IsServerUrl(context.db)) {
        return {};
    }
    CTYDatabase database = OpenForReading(context);
    return ReadReportedLosses(database, selection);
}

ReportJson ReadData(const Context& context, const ReportOptions& options) {
    TYPlaybackSelection selection;
    selection.since = options.since.value_or(selection.since);
    selection.until = options.until.value_or(selection.until);
    selection.application = options.application;
    CReportData data(context.now);
    CProgress progress(context.errors, "reading playbacks");
    VisitPlaybacks(context, selection, PlaybackDetail::TIMELINES,
                   [&](const TYAnalyzedPlayback& playback) {
                       data.Add(playback);
                       progress.Count();
                   });
    ReportJson json = data.Get();
    if (json["all"]["playbacks"] == 0) {
        context.errors << "tallyra: no playbacks match\n";
    }
    json["losses"] = ReadLosses(context, selection);
    json["made"] = FormatTime(context.now);
    json["since"] = TimeJson(options.since);
    json["until"] = TimeJson(options.until);
    json["selected_application"] = ReportText(options.application);
    return json;
}

}  // namespace

int Report(const Context& context, const ReportOptions& options) {
    if (options.output == "-") {
        WriteReportPage(context.out, ForScriptElement(ReadData(context, options)));
        return EXIT_OK;
    }
    try {
        COutputFile file(options.output, options.mode, context.db);
        WriteReportPage(file.Stream(), ForScriptElement(ReadData(context, options)));
        file.Commit();
        return EXIT_OK;
    } catch (const COutputError& error) {
        context.errors << "tallyra: cannot write " << Printable(options.output) << ": "
                       << error.what() << "\n";
        return EXIT_FAILED;
    }
}
