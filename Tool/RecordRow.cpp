// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "RecordRow.h"

#include "EventNames.h"
#include "RecordText.h"
#include "TYRecordImage.h"
#include "TypeNames.h"

#include <utility>

RecordFields FieldsOf(const TYMediaData& record) {
    TYRecordTexts texts = TextsOf(record);
    RecordFields fields;
    fields.time = record.time.sec * std::int64_t{1'000'000'000} + record.time.nsec;
    fields.application = std::move(texts.serviceID);
    fields.version = std::move(texts.serviceVersion);
    fields.playback = std::move(texts.playbackID);
    fields.player = static_cast<std::uint8_t>(record.playerID);
    fields.network = SignedByte(record.networkType);
    fields.code = record.event;
    fields.param1 = record.param1;
    fields.param2 = record.param2;
    fields.title = std::move(texts.title);
    fields.duration = record.content.duration;
    fields.drm = SignedByte(record.content.drmType);
    fields.content = SignedByte(record.content.contentType);
    fields.channel = std::move(texts.channelID);
    fields.genre = std::move(texts.genre);
    fields.customInfo = std::move(texts.customInfo);
    return fields;
}

std::vector<std::string> RecordColumns() {
    return {"id",           "arrival",      "time",     "sender",      "uid",         "pid",
            "application",  "version",      "playback", "player",      "player_id",   "network",
            "network_type", "event",        "kind",     "code",        "param1",      "param2",
            "title",        "url",          "url_cut",  "duration_ms", "drm",         "drm_type",
            "content",      "content_type", "channel",  "genre",       "custom_info", "what"};
}

Row RecordRow(RecordFields fields) {
    std::string what = DescribeRecord(fields.code, fields.param1, fields.param2);
    return RecordRow(std::move(fields), std::move(what));
}

Row RecordRow(RecordFields fields, std::string what) {
    return {std::move(fields.id),
            std::move(fields.arrival),
            TimeCell{fields.time},
            std::move(fields.sender),
            std::move(fields.uid),
            std::move(fields.pid),
            std::move(fields.application),
            std::move(fields.version),
            std::move(fields.playback),
            PlayerName(fields.player),
            std::int64_t{fields.player},
            NetworkName(fields.network),
            std::int64_t{fields.network},
            EventName(fields.code),
            EventKind(fields.code),
            std::int64_t{fields.code},
            fields.param1,
            fields.param2,
            std::move(fields.title),
            std::move(fields.url),
            std::move(fields.urlCut),
            fields.duration,
            DrmName(fields.drm),
            std::int64_t{fields.drm},
            ContentName(fields.content),
            std::int64_t{fields.content},
            std::move(fields.channel),
            std::move(fields.genre),
            std::move(fields.customInfo),
            std::move(what)};
}
