// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYDataCollector.h"

#include "TYHostCall.h"
#include "TYLog.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <new>
#include <utility>

#define TY_LOG_TAG TY_TAG

namespace {

// A heartbeat (PLAYING_TIME) is recorded each time the position is three minutes or more after the
// reference position. A position more than nine seconds beyond that, or before the reference
// position, is a jump.
constexpr std::uint32_t kHeartbeatMs = 180000;
constexpr std::uint32_t kHeartbeatLatestMs = 189000;

// Execute accepts every call in the first 10 s after START, later one call per code in 60 s.
constexpr std::uint32_t kUnlimitedExecuteSeconds = 10;
constexpr std::uint32_t kExecutePeriodSeconds = 60;

}  // namespace

CTYDataCollector::CTYDataCollector(const char* appId, TY_PLAYER_ID playerId, ITYBus& bus,
                                   ITYClock& clock)
    : m_KeyWatch(ProcessKeyWatch()),
      m_Clock(clock),
      m_DataSender(bus, clock),
      m_EventAnalyzer(clock),
      m_PlayerID(static_cast<std::uint8_t>(playerId)) {
    TY_LOG_DEBUG("CTYDataCollector Create >>");
    TY_LOG_INFO("ty interface version %d.%d", m_nVersionMajor, m_nVersionMinor);
    SetServiceID(appId);
    ReadCollectSwitch();
    m_EventAnalyzer->Initthread(&*m_DataSender);
    m_EventAnalyzer->Start();
    m_DataSender->SetServiceConnectionCallback(
        [this](bool connected) { HandleServiceConnection(connected); });
}

// The connection check stops first, because its handler calls the analyzer, which is destroyed
// before the sender.
CTYDataCollector::~CTYDataCollector() {
    if (!m_Process.IsCurrent()) {
        m_NetworkManager.Abandon();
        m_EventAnalyzer.Abandon();
        m_DataSender.Abandon();
        return;
    }
    const CTYHostCall hostCall;
    TY_LOG_INFO("CTYDataCollector Destroy >>");
    m_DataSender->BeginShutdown();
    m_DataSender->StopConnectionCheck();
    m_EventAnalyzer->RequestTerminate();
    m_DataSender->RequestTerminate();
    UnRegisterCollectOnOffCallback();
    m_NetworkManager.Destroy();
    m_EventAnalyzer.Destroy();
    m_DataSender.Destroy();
}

bool CTYDataCollector::GetVersion(int* pMajor, int* pMinor) {
    if (!m_Process.IsCurrent()) {
        return false;
    }
    const CTYHostCall hostCall;
    if (pMajor == nullptr || pMinor == nullptr) {
        TY_LOG_ERROR("input paramter is null...");
        return false;
    }
    TY_LOG_INFO("ty interface version %d.%d", m_nVersionMajor, m_nVersionMinor);
    *pMajor = m_nVersionMajor;
    *pMinor = m_nVersionMinor;
    return true;
}

void CTYDataCollector::Collect(int event, int param1, int param2) {
    InsertData({static_cast<std::uint8_t>(event), param1, param2});
}

bool CTYDataCollector::IsPlaybackStarted() {
    CTYLock lock(m_ContentMutex);
    return m_PlaybackID[0] != '\0';
}

void CTYDataCollector::GetPlaybackID(PlaybackID& playbackID) {
    CTYLock lock(m_ContentMutex);
    std::copy(std::begin(m_PlaybackID), std::end(m_PlaybackID), playbackID);
}

void CTYDataCollector::SendMediaEvent(TY_EVENT_TYPE event, int param1, int param2) {
    if (!m_Process.IsCurrent()) {
        return;
    }
    const CTYHostCall hostCall;
    if (!IsPlaybackStarted() && event != TY_EVENT_START) {
        TY_LOG_ERROR("Do not start play, so do not collect data %d", event);
        return;
    }
    TY_LOG_DEBUG("[EXCUTE] event type : %d", event);
    if (event == TY_EVENT_START) {
        StartPlayback(param1, param2);
    } else {
        DispatchEvent(event, param1, param2);
    }
}

void CTYDataCollector::StartPlayback(int param1, int param2) {
    const TYUrl url = CurrentUrl();
    if (url == nullptr || url->empty()) {
        TY_LOG_ERROR(
            "Content URL do not set, so debug mode called assert. release mode collect data, but "
            "this data can not used");
        EnsureUrl();
        TY_ASSERT(false);
    }
    if (!IsPlaybackStarted()) {
        const int startTime = m_nReferencePosition.Exchange(kNoPosition);
        MakePlaybackID();
        Collect(TY_EVENT_START, startTime, param2);
        return;
    }
    TY_LOG_DEBUG("[EXCUTE] error type : %d", TY_ERROR_DUPLICATED_START);
    PlaybackID playbackID;
    GetPlaybackID(playbackID);
    TY_LOG_ERROR("start called more than two, so collect TY_ERROR_DUPLICATED_START %s", playbackID);
    Collect(TY_ERROR_DUPLICATED_START, param1, param2);
}

// Thread id, second and nanosecond are unique on the device. A thread id of more than five digits
// pushes the last digits of the nanosecond out of the field.
void CTYDataCollector::MakePlaybackID() {
    TYTime now{};
    GetCurrentTime(&now);
    const auto second = static_cast<std::uint32_t>(now.sec);
    m_nStartSecond = second;
    char digits[sizeof("4294967295") + sizeof("4294967295") + sizeof("-999999999")];
    std::snprintf(digits, sizeof(digits), "%05u%010lu%09d", static_cast<unsigned>(gettid()),
                  static_cast<unsigned long>(second), now.nsec);
    PlaybackID playbackID;
    CopyText(playbackID, digits);
    {
        CTYLock lock(m_ContentMutex);
        CopyText(m_PlaybackID, digits);
    }
    TY_LOG_DEBUG("TY_EVENT_START playbackID is %s", playbackID);
}

void CTYDataCollector::DispatchEvent(int event, int param1, int param2) {
    switch (event) {
        case TY_EVENT_STOP:
            Collect(event, m_nLastPosition, param2);
            Reset();
            break;
        case TY_EVENT_PAUSE:
            m_bPaused = true;
            m_nReferencePosition = kNoPosition;
            Collect(event, m_nLastPosition, param1);
            break;
        case TY_EVENT_BUFFERING_START:
            ReportBufferingStart(param2);
            break;
        case TY_EVENT_RENDER_START:
            ReportRenderStart(param1, param2);
            break;
        case TY_EVENT_RESUME:
            m_bPaused = false;
            Collect(event, param1, param2);
            break;
        case TY_EVENT_PLAYBACK_TIME:
            ReportPosition(param1, param2);
            break;
        case TY_EVENT_SEEK:
            Collect(event, m_nLastPosition, param1);
            break;
        case TY_EVENT_SEEK_COMPLETE:
            m_bReanchor = true;
            Collect(event, param1, param2);
            break;
        case TY_EVENT_BUFFERING_END:
        case TY_EVENT_PLAYING_TIME:
        default:
            Collect(event, param1, param2);
            break;
    }
}

void CTYDataCollector::ReportBufferingStart(int param2) {
    const bool wifi = CTYNetworkManager::m_NetworkType == TY_NETWORK_WIFI;
    Collect(TY_EVENT_BUFFERING_START, m_nLastPosition,
            wifi ? m_NetworkManager->GetWiFiSignalStrength() : param2);
}

void CTYDataCollector::ReportRenderStart(int param1, int param2) {
    if (m_bRenderStarted.Exchange(true)) {
        TY_LOG_DEBUG("[EXCUTE] event type : %d", TY_ERROR_DUPLICATED_RENDER_START);
    }
    Collect(TY_EVENT_RENDER_START, param1, param2);
}

void CTYDataCollector::ReportPosition(int position, int param2) {
    if (m_bPaused || !m_bRenderStarted) {
        return;
    }
    m_nLastPosition = position;
    const int reference = m_nReferencePosition;
    if (reference != kNoPosition && !m_bReanchor) {
        ReportHeartbeat(position, reference);
        return;
    }
    TY_LOG_DEBUG("[EXCUTE] event type : %d, playbackTime = %d", TY_EVENT_PLAYBACK_TIME, position);
    m_nReferencePosition.CompareExchange(kNoPosition, position);
    m_bReanchor = false;
    Collect(TY_EVENT_PLAYBACK_TIME, position, param2);
}

// The distance is unsigned, so a backward move gives a very large distance and counts as a jump.
// The exchange fails if a pause or a stop on another thread has cleared the reference position.
void CTYDataCollector::ReportHeartbeat(int position, int reference) {
    const std::uint32_t distance =
        static_cast<std::uint32_t>(position) - static_cast<std::uint32_t>(reference);
    if (distance < kHeartbeatMs) {
        return;
    }
    m_nReferencePosition.CompareExchange(reference, position);
    if (distance > kHeartbeatLatestMs) {
        TY_LOG_DEBUG("[EXCUTE] error type : %d", TY_ERROR_PLAYBACK_TIME_JUMP);
        Collect(TY_ERROR_PLAYBACK_TIME_JUMP, position, reference);
    } else {
        TY_LOG_DEBUG("[EXCUTE] event type : %d", TY_EVENT_PLAYING_TIME);
        Collect(TY_EVENT_PLAYING_TIME, position, static_cast<int>(distance));
    }
}

void CTYDataCollector::SendMediaError(TY_ERROR_TYPE error) {
    if (!m_Process.IsCurrent()) {
        return;
    }
    const CTYHostCall hostCall;
    if (!IsPlaybackStarted()) {
        if (!HasUrl()) {
            TY_LOG_ERROR("Do not start play and url is empty. drop event %d", error);
            return;
        }
        TY_LOG_ERROR("Do not start play, but collect error event %d", error);
    }
    TY_LOG_ERROR("[EXCUTE] error type : %d", error);
    Collect(error, 0, 0);
}

void CTYDataCollector::InsertData(TYEventInfo info) {
    if (!m_isDataCollectOn) {
        TY_LOG_DEBUG("m_isDataCollectOn : [%d]", static_cast<bool>(m_isDataCollectOn));
        return;
    }
    try {
        PassOn(MakeRecord(info));
    } catch (const std::bad_alloc& error) {
        TY_BAD_ALLOC(error);
    }
}

bool CTYDataCollector::Execute(int code, int value, std::string text) {
    if (!m_Process.IsCurrent()) {
        return false;
    }
    const CTYHostCall hostCall;
    if (!m_isDataCollectOn) {
        TY_LOG_DEBUG("m_isDataCollectOn : [%d]", static_cast<bool>(m_isDataCollectOn));
        return false;
    }
    if (!IsPlaybackStarted()) {
        TY_LOG_ERROR("Do not start play, so do not collect data");
        return false;
    }
    if (!MayExecute(code)) {
        return false;
    }
    try {
        auto record = MakeRecord({static_cast<std::uint8_t>(code), value, 0});
        CopyText(record->content.customInfo, text.c_str());
        return PassOn(std::move(record));
    } catch (const std::bad_alloc& error) {
        TY_BAD_ALLOC(error);
        return false;
    }
}

bool CTYDataCollector::MayExecute(int code) {
    if (static_cast<unsigned>(code) >= m_LastExecuteTime.size()) {
        TY_LOG_ERROR("Invalid event type");
        return false;
    }
    TYTime time{};
    GetCurrentTime(&time);
    const auto now = static_cast<std::uint32_t>(time.sec);
    auto& last = m_LastExecuteTime[static_cast<unsigned>(code)];
    const std::uint32_t before = last;
    const bool isUnlimited = now - m_nStartSecond <= kUnlimitedExecuteSeconds;
    // If two threads report the same code at the same time, the exchange succeeds for one of them.
    if (!isUnlimited &&
        (now - before < kExecutePeriodSeconds || last.CompareExchange(before, now) != before)) {
        TY_LOG_DEBUG("too many [%d] event", code);
        return false;
    }
    last = now;
    TY_LOG_DEBUG("[EXCUTE] event type : %d", code);
    return true;
}

std::unique_ptr<TYMediaRecord> CTYDataCollector::MakeRecord(TYEventInfo info) {
    auto record = DescribeContent();
    record->playerID = static_cast<std::int8_t>(m_PlayerID);
    record->networkType = static_cast<std::uint8_t>(CTYNetworkManager::m_NetworkType);
    CopyText(record->serviceID, m_ServiceID);
    FillWithZeros(record->padding1);
    record->event = info.event;
    FillWithZeros(record->padding2);
    record->param1 = info.param1;
    record->param2 = info.param2;
    GetCurrentTime(&record->time);
    return record;
}

std::unique_ptr<TYMediaRecord> CTYDataCollector::DescribeContent() {
    auto record = std::make_unique<TYMediaRecord>(TYMediaRecord::Unwritten{});
    CTYLock lock(m_ContentMutex);
    std::copy(std::begin(m_PlaybackID), std::end(m_PlaybackID), record->playbackID);
    std::copy(std::begin(m_ServiceVersion), std::end(m_ServiceVersion), record->serviceVersion);
    record->content = m_ContentBlock;
    if (m_pUrl != nullptr) {
        record->pUrl = *m_pUrl;
    }
    return record;
}

bool CTYDataCollector::PassOn(std::unique_ptr<TYMediaRecord> record) {
    const bool queued = m_EventAnalyzer->InsertData(record.release());
    m_EventAnalyzer->WakeUpThread();
    return queued;
}
