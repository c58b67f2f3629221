// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Player.h"

#include <algorithm>
#include <utility>

CPlayer::CPlayer(ITYDataCollector& collector, Recording recording, double speed, GSourceFunc onEnd,
                 gpointer pOnEndData)
    : m_Collector(collector),
      m_Recording(std::move(recording)),
      m_Speed(speed),
      m_OnEnd(onEnd),
      m_pOnEndData(pOnEndData) {}

CPlayer::~CPlayer() {
    if (m_Timer != 0) {
        g_source_remove(m_Timer);
    }
}

void CPlayer::Play() {
    DescribeContent();
    m_StartTime = g_get_monotonic_time();
    ScheduleNext();
}

// SetContentInfo copies the description, so it may live on the stack.
void CPlayer::DescribeContent() {
    const Content& content = m_Recording.content;
    std::string url = content.url;
    CTYContentInfo info(&url, static_cast<unsigned>(content.startTime));
    info.SetTitle(content.title);
    info.SetGenre(content.genre);
    info.SetChannelID(content.channel);
    info.SetCustomInfo(content.customInfo);
    info.SetDuration(content.duration);
    info.SetDrmType(static_cast<TY_DRM_TYPE>(content.drmType));
    info.SetContentType(static_cast<TY_CONTENT_TYPE>(content.contentType));
    m_Collector.SetContentInfo(&info);
}

// Computes each delay from the start of the session, so that delays do not add up.
void CPlayer::ScheduleNext() {
    if (m_Next == m_Recording.steps.size()) {
        End();
        return;
    }
    const auto due = static_cast<double>(m_Recording.steps[m_Next].milliseconds) / m_Speed;
    const auto passed = static_cast<double>(g_get_monotonic_time() - m_StartTime) / 1000;
    m_Timer = g_timeout_add(static_cast<guint>(std::max(0.0, due - passed)), &OnDue, this);
}

gboolean CPlayer::OnDue(gpointer pPlayer) {
    auto* pThis = static_cast<CPlayer*>(pPlayer);
    pThis->m_Timer = 0;
    pThis->Report(pThis->m_Recording.steps[pThis->m_Next++]);
    pThis->ScheduleNext();
    return G_SOURCE_REMOVE;
}

void CPlayer::Report(const Step& step) {
    switch (step.kind) {
        case Step::Kind::EVENT:
            m_bPlaying = step.code == TY_EVENT_START || (m_bPlaying && step.code != TY_EVENT_STOP);
            m_Collector.SendMediaEvent(static_cast<TY_EVENT_TYPE>(step.code), step.first,
                                       step.second);
            break;
        case Step::Kind::ERROR_REPORT:
            m_Collector.SendMediaError(static_cast<TY_ERROR_TYPE>(step.code));
            break;
        case Step::Kind::EXECUTE:
            m_Collector.Execute(step.code, step.first, step.text);
            break;
    }
}

void CPlayer::Stop() {
    if (m_bPlaying) {
        m_bPlaying = false;
        m_Collector.SendMediaEvent(TY_EVENT_STOP, 0, 0);
    }
    m_Next = m_Recording.steps.size();
    End();
}

void CPlayer::End() {
    if (!m_bEnded) {
        m_bEnded = true;
        m_OnEnd(m_pOnEndData);
    }
}
