// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The rows are those of the command, so that their fields cannot differ. The records come from the
// receiver, which decodes images without any code of the sender.

#include "RecordLines.h"

#include "PrintedText.h"
#include "RecordRow.h"
#include "TYRecordImage.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <stdexcept>

namespace {

std::int64_t Now() {
    using std::chrono::nanoseconds;
    return nanoseconds(std::chrono::system_clock::now().time_since_epoch()).count();
}

RecordFields FieldsOf(const receiver::Record& record) {
    RecordFields fields;
    fields.urlCut = std::int64_t{0};
    fields.time = record.seconds * std::int64_t{1'000'000'000} + record.nanoseconds;
    fields.application = ValidText(record.serviceId);
    fields.version = ValidText(record.serviceVersion);
    fields.playback = ValidText(record.playbackId);
    fields.player = static_cast<std::uint8_t>(record.playerId);
    fields.network = SignedByte(record.networkType);
    fields.code = record.event;
    fields.param1 = record.param1;
    fields.param2 = record.param2;
    fields.title = ValidText(record.title);
    fields.duration = record.duration;
    fields.drm = SignedByte(record.drmType);
    fields.content = SignedByte(record.contentType);
    fields.channel = ValidText(record.channelId);
    fields.genre = ValidText(record.genre);
    fields.customInfo = ValidText(record.customInfo);
    return fields;
}

}  // namespace

CRecordLines::CRecordLines(const std::string& file)
    : m_strName(file), m_Out(file == "-" ? std::cout : m_File) {
    if (file != "-") {
        m_File.open(file);
    }
    if (!m_Out) {
        throw std::runtime_error("cannot write " + file + ": " + std::strerror(errno));
    }
    m_pWriter = MakeRowWriter(m_Out, RecordColumns(), {.format = Format::JSONL});
}

void CRecordLines::Add(const receiver::Call& call) {
    if (!call.strProblem.empty()) {
        const std::string text =
            call.strFunction + " from " + call.strSender + ": " + call.strProblem;
        std::fprintf(stderr, "tallyra-testservice: malformed call: %s\n", Printable(text).c_str());
        return;
    }
    for (const receiver::ReceivedRecord& received : call.records) {
        RecordFields fields = FieldsOf(received.record);
        fields.id = ++m_nId;
        fields.arrival = TimeCell{Now()};
        fields.sender = call.strSender;
        fields.url = ValidText(received.strUrl);
        m_pWriter->Add(RecordRow(std::move(fields)));
    }
    m_pWriter->Flush();
}

void CRecordLines::End() {
    m_pWriter->End();
    m_pWriter->Flush();
    if (!m_Out) {
        throw std::runtime_error("cannot write " + m_strName);
    }
}
