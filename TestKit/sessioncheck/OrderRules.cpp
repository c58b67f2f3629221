// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Contract.h"
#include "TYEventCodes.h"

#include <algorithm>
#include <functional>

// Problem: a player's mistakes have to be found in the records that the library makes of its calls.
// Most mistakes leave records that contradict each other, and each of these has a complaint of its
// own. Some leave nothing: events before START are only logged, and a viewer may really stop during
// a pause. A missing end is therefore a complaint only if a later record shows that there was one.

namespace {

// A position that the player reported before may be recorded a little later.
constexpr std::int64_t kSettled = 9000;

// Whether the record shows that a picture was there before it.
bool ShowsPicture(const SessionRecord& record) {
    switch (record.Code()) {
        case TY_EVENT_RESUME:
        case TY_EVENT_SEEK_COMPLETE:
        case static_cast<int>(TY_EVENT_RENDITION):
            return true;
        case static_cast<int>(TY_EVENT_DROPPED_FRAMES):
            return record.timeline.param2 > 0;
        case TY_EVENT_STOP:
            return record.timeline.param2 == TY_STOP_END_OF_CONTENT;
        default:
            return IsPosition(record.timeline);
    }
}

/// Follows the events of a playback.
class COrder {
  public:
    explicit COrder(Complaints& complaints) : m_Complaints(complaints) {}

    void Follow(const SessionRecord& record) {
        if (m_pStop != nullptr) {
            FollowStop(record);
            return;
        }
        FollowPicture(record);
        FollowBuffering(record);
        FollowPause(record);
        FollowSeek(record);
        FollowError(record);
        if (record.Code() == TY_EVENT_STOP) {
            m_pStop = &record;
        }
    }

    void End(const SessionRecord& last) {
        if (m_pStop == nullptr) {
            Complain({last.line},
                     "the playback ends here without STOP: send it once, also after a "
                     "fatal error and when the application closes");
        }
    }

  private:
    void Complain(std::vector<std::size_t> lines, std::string text) {
        m_Complaints.push_back({std::move(lines), std::move(text)});
    }

    // The play time is what the library records after STOP.
    void FollowStop(const SessionRecord& record) {
        if (record.Code() != TY_EVENT_PLAYING_TIME) {
            Complain({m_pStop->line, record.line},
                     record.name + " after STOP: STOP is the last call of a playback");
        }
    }

    void FollowPicture(const SessionRecord& record) {
        if (record.Code() == TY_EVENT_RENDER_START) {
            if (m_pRender != nullptr) {
                Complain({m_pRender->line, record.line},
                         "a second RENDER_START: send it once, for the first frame of a playback");
            }
            m_pRender = &record;
        } else if (m_pRender == nullptr && !m_bNoRender && ShowsPicture(record)) {
            m_bNoRender = true;
            Complain({record.line}, record.name +
                                        " without RENDER_START before it: send "
                                        "RENDER_START when the first frame is on the "
                                        "screen; positions before it are ignored");
        }
    }

    void FollowBuffering(const SessionRecord& record) {
        if (record.Code() == TY_EVENT_BUFFERING_START) {
            if (m_pStall != nullptr) {
                Complain({m_pStall->line, record.line},
                         "BUFFERING_START twice without BUFFERING_END between: send BUFFERING_END "
                         "when the picture goes on, also if buffering begins again");
            }
            m_pStall = &record;
        } else if (record.Code() == TY_EVENT_BUFFERING_END) {
            if (m_pStall == nullptr) {
                Complain({record.line},
                         "BUFFERING_END without BUFFERING_START before it: send one "
                         "BUFFERING_START and one BUFFERING_END for each wait");
            }
            m_pStall = nullptr;
        } else if (m_pStall != nullptr && PlaysOn(record, *m_pStall)) {
            Complain({m_pStall->line, record.line},
                     "BUFFERING_START without BUFFERING_END, but the position advances: send "
                     "BUFFERING_END when the picture goes on");
            m_pStall = nullptr;
        }
    }

    static bool PlaysOn(const SessionRecord& record, const SessionRecord& since) {
        return IsHeartbeat(record.timeline) &&
               record.timeline.time - since.timeline.time > kSettled;
    }

    void FollowPause(const SessionRecord& record) {
        if (record.Code() == TY_EVENT_PAUSE) {
            if (m_pPause != nullptr) {
                Complain({m_pPause->line, record.line},
                         "PAUSE twice without RESUME between: send RESUME when the picture goes "
                         "on; positions are ignored until then");
            }
            m_pPause = &record;
        } else if (record.Code() == TY_EVENT_RESUME) {
            if (m_pPause == nullptr) {
                Complain({record.line},
                         "RESUME without PAUSE before it: send PAUSE when the "
                         "viewer pauses, and nothing at the start");
            }
            m_pPause = nullptr;
        }
    }

    void FollowSeek(const SessionRecord& record) {
        if (record.Code() == TY_EVENT_SEEK_COMPLETE) {
            if (m_pSeek == nullptr) {
                Complain({record.line},
                         "SEEK_COMPLETE without SEEK before it: send SEEK when the "
                         "viewer seeks");
            }
            m_pSeek = nullptr;
            return;
        }
        if (m_pSeek != nullptr && HasMoved(record, *m_pSeek)) {
            Complain({m_pSeek->line, record.line},
                     "SEEK without SEEK_COMPLETE, but the position advances: send SEEK_COMPLETE "
                     "when the player has reached the new position");
            m_pSeek = nullptr;
        }
        if (record.Code() == TY_EVENT_SEEK) {
            m_pSeek = &record;
        }
    }

    static bool HasMoved(const SessionRecord& record, const SessionRecord& seek) {
        return (HasLastPosition(record.Code()) || IsPosition(record.timeline)) &&
               record.timeline.param1 != seek.timeline.param1 &&
               record.timeline.time - seek.timeline.time > kSettled;
    }

    void FollowError(const SessionRecord& record) {
        m_bError = m_bError || IsError(record.Code());
        if (record.Code() == TY_EVENT_STOP && record.timeline.param2 == TY_STOP_FATAL_ERROR &&
            !m_bError) {
            Complain({record.line},
                     "STOP because of a fatal error, but no error before it: report "
                     "the error with SendMediaError, then STOP");
        }
        if (record.Code() == TY_ERROR_DUPLICATED_START) {
            Complain({record.line},
                     "START during a playback: send STOP for the old playback "
                     "before START for the next one");
        }
    }

    Complaints& m_Complaints;
    const SessionRecord* m_pStop = nullptr;
    const SessionRecord* m_pRender = nullptr;
    const SessionRecord* m_pStall = nullptr;  ///< the open BUFFERING_START
    const SessionRecord* m_pPause = nullptr;  ///< the PAUSE without RESUME
    const SessionRecord* m_pSeek = nullptr;   ///< the SEEK without SEEK_COMPLETE
    bool m_bNoRender = false;
    bool m_bError = false;
};

}  // namespace

void CheckOrder(const Playback& playback, Complaints& complaints) {
    const SessionRecord& first = playback.records.front();
    if (first.Code() != TY_EVENT_START) {
        complaints.push_back(
            {{first.line},
             "the playback begins with " + first.name +
                 " instead of START: send START first, and check whole playbacks"});
    }
    COrder order(complaints);
    for (const SessionRecord& record : playback.records) {
        order.Follow(record);
    }
    order.End(playback.records.back());
}
