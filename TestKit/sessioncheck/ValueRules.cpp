// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Contract.h"
#include "TYEventCodes.h"

#include <algorithm>

namespace {

// A rate above this is in bit/s: no content has a gigabit per second.
constexpr int kHighestKbps = 1'000'000;

/// Looks at the records one by one.
class CValues {
  public:
    explicit CValues(Complaints& complaints) : m_Complaints(complaints) {}

    void Look(const SessionRecord& record) {
        LookAtCode(record);
        LookAtContent(record);
        switch (record.Code()) {
            case TY_EVENT_STOP:
                LookAtReason(record);
                break;
            case TY_EVENT_BUFFERING_END:
                LookAtCause(record);
                break;
            case TY_EVENT_RENDER_START:
                m_bRendered = true;
                break;
            case static_cast<int>(TY_EVENT_RENDITION):
                LookAtRendition(record);
                break;
            case static_cast<int>(TY_EVENT_DROPPED_FRAMES):
                LookAtFrames(record);
                break;
            default:
                break;
        }
        m_nLastCode = record.Code();
    }

  private:
    void Complain(const SessionRecord& record, std::string text) {
        m_Complaints.push_back({{record.line}, std::move(text)});
    }

    void LookAtCode(const SessionRecord& record) {
        if (record.Code() == kFirstErrorCode || record.Code() == TY_ERROR_URL_CHANGED ||
            record.Code() == TY_ERROR_DUPLICATED_RENDER_START) {
            Complain(record, "error " + std::to_string(record.Code()) +
                                 " is the library's own: use codes from 206 to 255 for errors");
        }
        if (IsDerived(record) && !IsInPlace(record)) {
            Complain(record, record.name + " is made by the library only: do not send it");
        }
    }

    static bool IsDerived(const SessionRecord& record) {
        return record.Code() == TY_EVENT_PLAYING_TIME || record.Code() == TY_EVENT_START_UP_TIME ||
               record.Code() == TY_EVENT_BUFFERING_TIME;
    }

    // The library adds a record directly after the event that completes it.
    bool IsInPlace(const SessionRecord& record) const {
        switch (record.Code()) {
            case TY_EVENT_START_UP_TIME:
                return m_nLastCode == TY_EVENT_RENDER_START;
            case TY_EVENT_BUFFERING_TIME:
                return m_nLastCode == TY_EVENT_BUFFERING_END;
            default:
                return IsHeartbeat(record.timeline) || m_nLastCode == TY_EVENT_PAUSE ||
                       m_nLastCode == TY_EVENT_STOP;
        }
    }

    void LookAtContent(const SessionRecord& record) {
        if (m_pFirst == nullptr) {
            m_pFirst = &record;
            if (record.url == "") {
                Complain(record, "no URL: call SetContentInfo with a URL before START");
            }
            if (record.application.empty()) {
                Complain(record,
                         "no application: pass its identifier to "
                         "GetTYDataCollectorInstance");
            }
        } else if (record.url != m_pFirst->url && !m_bUrlChanged) {
            m_bUrlChanged = true;
            m_Complaints.push_back({{m_pFirst->line, record.line},
                                    "the URL changes during the playback: send STOP before the "
                                    "next content, and neither add nor remove a title"});
        }
    }

    void LookAtReason(const SessionRecord& record) {
        const int reason = record.timeline.param2;
        if (reason < TY_STOP_NOT_TOLD || reason > TY_STOP_APPLICATION_CLOSED) {
            Complain(record, "STOP with the reason " + std::to_string(reason) +
                                 ": pass a TY_STOP_REASON, 0 to 5, as second parameter");
        }
    }

    void LookAtCause(const SessionRecord& record) {
        const int cause = record.timeline.param2;
        if (cause < TY_STALL_NOT_TOLD || cause > TY_STALL_RENDITION_SWITCH) {
            Complain(record, "BUFFERING_END with the cause " + std::to_string(cause) +
                                 ": pass a TY_STALL_CAUSE, 0 to 4, as second parameter");
        } else if (cause == TY_STALL_START && m_bRendered) {
            Complain(record,
                     "BUFFERING_END with the cause TY_STALL_START after the first frame: "
                     "tell what the picture waited for, as TY_STALL_CONNECTION");
        }
    }

    void LookAtRendition(const SessionRecord& record) {
        const auto size = static_cast<std::uint32_t>(record.timeline.param2);
        if (record.timeline.param1 < 0 || record.timeline.param1 > kHighestKbps) {
            Complain(record, "RENDITION with " + std::to_string(record.timeline.param1) +
                                 " kbit/s: pass the bit rate in kbit/s, or 0");
        }
        if (((size >> 16U) == 0) != ((size & 0xffffU) == 0)) {
            Complain(record, "RENDITION with a size of " +
                                 std::to_string(static_cast<int>(size >> 16U)) + " x " +
                                 std::to_string(static_cast<int>(size & 0xffffU)) +
                                 ": pass TYFrameSize(width, height), or 0");
        }
    }

    void LookAtFrames(const SessionRecord& record) {
        const auto& [dropped, rendered] = m_Frames;
        if (record.timeline.param1 < dropped || record.timeline.param2 < rendered) {
            Complain(record,
                     "DROPPED_FRAMES with lower numbers than before: count frames since "
                     "START");
        }
        m_Frames = {record.timeline.param1, record.timeline.param2};
    }

    Complaints& m_Complaints;
    const SessionRecord* m_pFirst = nullptr;
    bool m_bUrlChanged = false;
    bool m_bRendered = false;
    int m_nLastCode = 0;
    std::pair<std::int32_t, std::int32_t> m_Frames{0, 0};
};

}  // namespace

void CheckValues(const Playback& playback, Complaints& complaints) {
    CValues values(complaints);
    for (const SessionRecord& record : playback.records) {
        values.Look(record);
    }
}

// Outside a playback the library records errors only.
Complaints CheckPlayback(const Playback& playback) {
    Complaints complaints;
    if (playback.name.empty()) {
        for (const SessionRecord& record : playback.records) {
            complaints.push_back({{record.line},
                                  record.name + " belongs to no playback: send START before the "
                                                "content is loaded, and errors before STOP"});
        }
        return complaints;
    }
    CheckOrder(playback, complaints);
    CheckPositions(playback, complaints);
    CheckValues(playback, complaints);
    std::ranges::stable_sort(complaints, {},
                             [](const Complaint& complaint) { return complaint.lines.back(); });
    return complaints;
}
