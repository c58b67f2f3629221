// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Commands.h"

#include "EventNames.h"
#include "TYRecordImage.h"
#include "TimeText.h"

#include <fstream>
#include <iostream>

namespace {

std::vector<std::string> Columns() {
    return {"time",      "event",      "code",         "param1",          "param2",
            "player_id", "network",    "playback_id",  "service_version", "service_id",
            "duration",  "drm_type",   "content_type", "channel_id",      "title",
            "genre",     "custom_info"};
}

Row RowOfRecord(const TYMediaData& record) {
    const TYRecordTexts texts = TextsOf(record);
    const std::int64_t time = record.time.sec * std::int64_t{1'000'000'000} + record.time.nsec;
    return {FormatTime(time),
            EventName(record.event),
            std::int64_t{record.event},
            std::int64_t{record.param1},
            std::int64_t{record.param2},
            std::int64_t{record.playerID},
            NetworkName(record.networkType),
            texts.playbackID,
            texts.serviceVersion,
            texts.serviceID,
            std::int64_t{record.content.duration},
            std::int64_t{record.content.drmType},
            std::int64_t{record.content.contentType},
            texts.channelID,
            texts.title,
            texts.genre,
            texts.customInfo};
}

int DecodeStream(const Context& context, std::istream& in, const std::string& name) {
    const auto pWriter = MakeWriter(context, Columns());
    std::string image(sizeof(TYMediaData), '\0');
    while (in.read(image.data(), static_cast<std::streamsize>(image.size()))) {
        pWriter->Add(RowOfRecord(*RecordFromImage(image)));
    }
    if (in.bad()) {
        context.errors << "tallyra: cannot read " << name << "\n";
        return EXIT_FAILED;
    }
    pWriter->End();
    if (in.gcount() != 0) {
        context.errors << "tallyra: incomplete record at the end: " << in.gcount() << " of "
                       << image.size() << " bytes\n";
        return EXIT_FAILED;
    }
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
