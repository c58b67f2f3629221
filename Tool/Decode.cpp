// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Commands.h"

#include "EventNames.h"
#include "RecordRow.h"
#include "RecordText.h"
#include "TYRecordImage.h"
#include "TypeNames.h"

#include <fstream>
#include <iostream>
#include <utility>

namespace {

std::vector<std::string> Columns(bool all) {
    if (all) {
        return RecordColumns();
    }
    return {"time", "application", "playback", "event", "kind",
            "what", "network",     "player",   "title"};
}

Row RowOfRecord(const TYMediaData& record, bool all) {
    RecordFields fields = FieldsOf(record);
    if (all) {
        return RecordRow(std::move(fields));
    }
    return {TimeCell{fields.time},       std::move(fields.application),
            std::move(fields.playback),  EventName(fields.code),
            EventKind(fields.code),      DescribeRecord(fields.code, fields.param1, fields.param2),
            NetworkName(fields.network), PlayerName(fields.player),
            std::move(fields.title)};
}

int DecodeStream(const Context& context, std::istream& in, const std::string& name) {
    const bool all = context.format != Format::TABLE;
    const auto pWriter = MakeWriter(context, Columns(all));
    std::string image(sizeof(TYMediaData), '\0');
    while (in.read(image.data(), static_cast<std::streamsize>(image.size()))) {
        pWriter->Add(RowOfRecord(*RecordFromImage(image), all));
    }
    if (in.bad()) {
        context.errors << "tallyra: cannot read " << name << "\n";
        return EXIT_FAILED;
    }
    if (in.gcount() != 0) {
        pWriter->End();
        context.errors << "tallyra: incomplete record at the end: " << in.gcount() << " of "
                       << image.size() << " bytes\n";
        return EXIT_FAILED;
    }
    EndRows(context, *pWriter, "no records");
    return EXIT_OK;
}

}  // namespace

int Decode(const Context& context, const std::string& path) {
    if (path == "-") {
        return DecodeStream(context, std::cin, "standard input");
    }
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        context.errors << "tallyra: cannot read " << path << "\n";
        return EXIT_FAILED;
    }
    return DecodeStream(context, file, path);
}
