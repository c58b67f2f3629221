// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYEventAnalyzer.h"

#include "TYDataSender.h"
#include "TYEventCodes.h"
#include "TYLimits.h"
#include "TYLog.h"

#include <memory>
#include <utility>

#define TY_LOG_TAG TY_TAG

namespace {

constexpr CTYWorker::Texts kTexts = {
    .pTag = TY_TAG,
    .pStarted = "Analyzer thread start done",
    .pTerminate = "Event Analyzer terminate",
    .pJoinable = "Analyzer thread joinable",
    .pJoined = "Analyzer join terminate",
    .pSleeping = "CTYEventAnalyzer thread sleep....",
    .pTimeout = "CTYEventAnalyzer Wake up by timeout ... ",
    .pWoken = "CTYEventAnalyzer thread wake up!!",
    .pDraining = "CTYEventAnalyzer m_bRequestTerminate...",
    .pFinished = "Analyzer thread finished",
};

/// Wraps at 32 bits without undefined behaviour, since players may report any position.
std::int32_t Difference(std::int32_t later, std::int32_t earlier) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(later) -
                                     static_cast<std::uint32_t>(earlier));
}

}  // namespace

CTYEventAnalyzer::CTYEventAnalyzer(ITYClock& clock)
    : m_Clock(clock),
      m_Worker(kTexts,
               {.hasWork = [this] { return m_Queue.size() != 0; },
                .work = [this] { AnalyzeEvent(); },
                .bWorksAfterWait = false},
               clock) {
    TY_LOG_DEBUG("Create >>");
}

CTYEventAnalyzer::~CTYEventAnalyzer() {
    TY_LOG_DEBUG("Destroy >>");
    m_Worker.Shutdown();
}

void CTYEventAnalyzer::Initthread(CTYDataSender* pSender) {
    m_pSender = pSender;
}

bool CTYEventAnalyzer::Start() {
    return m_Worker.Start({});
}

void CTYEventAnalyzer::RequestTerminate() {
    m_Worker.RequestTerminate();
}

void CTYEventAnalyzer::WakeUpThread() noexcept {
    m_Worker.WakeUpThread();
}

bool CTYEventAnalyzer::InsertData(TYMediaRecord* pRecord) {
    std::unique_ptr<TYMediaRecord> record(pRecord);
    // An analyzer cannot be restarted: if collection goes off and on again, it has no thread.
    // Without a limit, records would then fill the host's memory.
    if (!m_Worker.IsRunning() && m_Queue.size() >= TYLimits::kMaxWaitingRecords) {
        // Logs only the first, because a player that reports every second would fill the log.
        if (!m_bDropLogged.Exchange(true)) {
            TY_LOG_ERROR("no analyzer thread, drop event %d", pRecord->event);
        }
        return false;
    }
    m_Queue.push(pRecord);
    static_cast<void>(record.release());  // the queue owns it now
    return true;
}

// Analyses a copy, because the sender may free the record at once.
void CTYEventAnalyzer::AnalyzeEvent() {
    if (m_Queue.size() == 0) {
        return;
    }
    try {
        std::unique_ptr<TYMediaRecord> record(m_Queue.take());
        const TYMediaRecord workingCopy = *record;
        InsertDataAtIPCQueue(record.release());
        Analyze(workingCopy);
    } catch (const std::range_error&) {
        TY_LOG_ERROR("queue is empty!");
    }
}

// Changes the analysis state before it makes a derived record, because that may fail to allocate
// and throw.
void CTYEventAnalyzer::Analyze(const TYMediaRecord& record) {
    switch (record.event) {
        case TY_EVENT_START:
            m_tStartTime = record.time;
            m_nBasePosition = kUnknownPosition;
            break;
        case TY_EVENT_STOP:
            m_bIntervalOpen = false;
            DerivePlayingTime(record, m_nBasePosition);
            break;
        case TY_EVENT_PAUSE:
            DerivePlayingTime(record, std::exchange(m_nBasePosition, kUnknownPosition));
            break;
        case TY_EVENT_BUFFERING_START:
            OpenInterval(record);
            break;
        case TY_EVENT_BUFFERING_END:
            CloseInterval(record);
            break;
        case TY_EVENT_RENDER_START:
            DeriveStartUpTime(record);
            break;
        case TY_EVENT_PLAYBACK_TIME:
            if (m_nBasePosition == kUnknownPosition) {
                m_nBasePosition = record.param1;
            }
            break;
        case TY_EVENT_PLAYING_TIME:
        case TY_ERROR_PLAYBACK_TIME_JUMP:
            m_nBasePosition = record.param1;
            break;
        case TY_EVENT_RESUME:
        case TY_EVENT_SEEK:
        case TY_EVENT_SEEK_COMPLETE:
        case TY_EVENT_START_UP_TIME:
        case TY_EVENT_BUFFERING_TIME:
        case TY_ERROR_URL_CHANGED:
        case TY_ERROR_BUFFERING_MISMATCH:
        case TY_ERROR_DUPLICATED_START:
        case TY_ERROR_DUPLICATED_RENDER_START:
        default:
            break;
    }
}

void CTYEventAnalyzer::DerivePlayingTime(const TYMediaRecord& record, std::int32_t base) {
    std::unique_ptr<TYMediaRecord> derived(CopyData(&record, TY_EVENT_PLAYING_TIME));
    derived->param2 = base == kUnknownPosition ? 0 : Difference(record.param1, base);
    PassOnDerived(std::move(derived));
}

void CTYEventAnalyzer::DeriveStartUpTime(const TYMediaRecord& record) {
    std::unique_ptr<TYMediaRecord> derived(CopyData(&record, TY_EVENT_START_UP_TIME));
    derived->param1 = GetTimeDiffInMS(m_tStartTime, derived->time);
    PassOnDerived(std::move(derived));
}

void CTYEventAnalyzer::DeriveMismatch(const TYMediaRecord& record) {
    PassOnDerived(std::unique_ptr<TYMediaRecord>(CopyData(&record, TY_ERROR_BUFFERING_MISMATCH)));
}

void CTYEventAnalyzer::OpenInterval(const TYMediaRecord& record) {
    m_tIntervalStart = record.time;
    if (std::exchange(m_bIntervalOpen, true)) {
        DeriveMismatch(record);
    }
}

void CTYEventAnalyzer::CloseInterval(const TYMediaRecord& record) {
    if (!std::exchange(m_bIntervalOpen, false)) {
        DeriveMismatch(record);
        return;
    }
    std::unique_ptr<TYMediaRecord> derived(CopyData(&record, TY_EVENT_BUFFERING_TIME));
    derived->param1 = GetTimeDiffInMS(m_tIntervalStart, derived->time);
    PassOnDerived(std::move(derived));
}

// Frees the record if there is no sender; InsertDataAtIPCQueue would leave it to its caller.
void CTYEventAnalyzer::PassOnDerived(std::unique_ptr<TYMediaRecord> derived) {
    if (m_pSender != nullptr) {
        InsertDataAtIPCQueue(derived.release());
    }
}

void CTYEventAnalyzer::InsertDataAtIPCQueue(TYMediaRecord* pRecord) {
    if (m_pSender == nullptr) {
        return;
    }
    PrintData(pRecord);
    m_pSender->InsertData(pRecord);
}

TYMediaRecord* CTYEventAnalyzer::CopyData(const TYMediaRecord* pSource, unsigned char event) {
    TY_LOG_DEBUG("[EXCUTE] event type : %d", event);
    try {
        auto copy = std::make_unique<TYMediaRecord>(*pSource);
        copy->event = event;
        copy->time = Now();
        return copy.release();
    } catch (const std::bad_alloc& error) {
        TY_BAD_ALLOC(error);
        throw;
    }
}

TYTime CTYEventAnalyzer::Now() {
    timespec now{};
    if (m_Clock.GetRealTime(&now) != 0) {
        TY_LOG_ERROR("clock_gettime failed!!");
        TY_ASSERT(false);
        return {};
    }
    return {static_cast<std::int32_t>(now.tv_sec), static_cast<std::int32_t>(now.tv_nsec)};
}

void CTYEventAnalyzer::PrintData(const TYMediaRecord* pRecord) {
    TY_LOG_DEBUG("pUrl %.*s.", static_cast<int>(pRecord->Url().size()), pRecord->Url().data());
    TY_LOG_DEBUG("duration %d.", pRecord->content.duration);
    TY_LOG_DEBUG("playbackID %.*s.", static_cast<int>(sizeof(pRecord->playbackID)),
                 pRecord->playbackID);
    TY_LOG_DEBUG("playerID %d.", pRecord->playerID);
    TY_LOG_DEBUG("event %d.", pRecord->event);
    TY_LOG_DEBUG("param1 %d.", pRecord->param1);
    TY_LOG_DEBUG("param2 %d.", pRecord->param2);
}

int CTYEventAnalyzer::GetTimeDiffInMS(TYTime start, TYTime end) {
    constexpr std::int32_t nsecPerSec = 1'000'000'000;
    constexpr std::int32_t nsecPerMs = 1'000'000;
    auto seconds = static_cast<std::uint32_t>(Difference(end.sec, start.sec));
    std::int32_t fraction = Difference(end.nsec, start.nsec);
    if (fraction < 0) {
        --seconds;
        fraction += nsecPerSec;
    }
    // The label says usec although the value is nanoseconds, and the text ends in a newline. Field
    // tooling parses it as it is.
    TY_LOG_DEBUG("DIFF___TIME sec[%lu] usec[%d]\n", static_cast<unsigned long>(seconds), fraction);
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(fraction / nsecPerMs) +
                                     1000U * seconds);
}
