// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYDataSender.h"

#include "TYLog.h"
#include "TYThread.h"
#include "tallyra/TYTypes.h"

#include <glib.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <new>
#include <utility>

#define TY_LOG_TAG TY_TAG_UTIL

namespace {

constexpr CTYWorker::Texts kTexts = {
    .pTag = TY_TAG_UTIL,
    .pStarted = "Sender thread start done",
    .pTerminate = "Sender terminate",
    .pJoinable = "Sender thread joinable",
    .pJoined = "Sender join terminate",
    .pSleeping = "CTYDataSender thread sleep....",
    .pTimeout = "CTYDataSender Wake up by timeout ... ",
    .pWoken = "CTYDataSender thread wake up!!",
    .pDraining = "CTYDataSender m_bRequestTerminate...",
    .pFinished = "Sender thread finished",
};

constexpr int kTimerPeriodMs = 60000;
constexpr int kReplyTimeoutMs = 3000;
constexpr std::size_t kRecordsThatWake = 10;
constexpr std::chrono::seconds kPollPeriod{1};

// GLib's own locks order the hand-over of a timer's link to the main loop and back. This says it in
// terms of the language, for whoever does not see into GLib: race detectors do not.
void OrderHandOver() {
    static std::atomic<unsigned> s_nHandOvers{0};
    s_nHandOvers.fetch_add(1, std::memory_order_acq_rel);
}

std::unique_ptr<CTYServiceProxy> MakeProxy(ITYBus& bus, ITYClock& clock) {
    try {
        return std::make_unique<CTYServiceProxy>(bus, clock);
    } catch (const std::bad_alloc& error) {
        TY_BAD_ALLOC(error);
        throw;
    }
}

std::size_t WireBytes(const TYMediaRecord* pRecord) {
    return sizeof(TYMediaData) + pRecord->strUrl.size();
}

}  // namespace

/// What a timer holds instead of the sender itself: the host's main loop may be about to call when
/// the sender goes.
struct CTYDataSender::TimerLink {
    explicit TimerLink(CTYDataSender* pOwner) : pSender(pOwner) {}

    CTYDataSender* const pSender;
    CTYCallbackGate gate;
};

CTYDataSender::CTYDataSender(ITYBus& bus, ITYClock& clock)
    : m_ConnectionSleeper(clock),
      m_Worker(kTexts,
               {.hasWork = [this] { return m_Queue.size() != 0; },
                .work = [this] { SendData(); },
                .bWorksAfterWait = true},
               clock) {
    TY_LOG_INFO("Create >>");
    m_pProxy = MakeProxy(bus, clock);
}

CTYDataSender::~CTYDataSender() {
    TY_LOG_DEBUG("Destroy >>");
    StopConnectionCheck();
    UnRegisterTimer();
    m_Worker.Shutdown();
}

bool CTYDataSender::Start() {
    return m_Worker.Start([this] { RegisterTimer(kTimerPeriodMs); });
}

void CTYDataSender::RequestTerminate() {
    m_Worker.RequestTerminate();
}

void CTYDataSender::LimitCallsToCome() {
    m_pProxy->LimitCallsToCome(std::chrono::milliseconds(kReplyTimeoutMs));
}

void CTYDataSender::WakeUpThread() noexcept {
    m_Worker.WakeUpThread();
}

int CTYDataSender::GetQueueSize() const {
    return static_cast<int>(m_Queue.size());
}

void CTYDataSender::InsertData(TYMediaRecord* pRecord) {
    // Once it is queued the sender's thread may free the record at any moment.
    const unsigned char event = pRecord->event;
    std::unique_ptr<TYMediaRecord> record(pRecord);
    m_Queue.push(pRecord);
    static_cast<void>(record.release());  // the queue's now
    if (event == TY_EVENT_STOP) {
        m_bStopEventQueued = true;
    }
    if (m_Queue.size() >= kRecordsThatWake) {
        WakeUpThread();
        return;
    }
    if (m_bStopEventQueued && event == TY_EVENT_PLAYING_TIME) {
        m_bStopEventQueued = false;
        WakeUpThread();
    }
}

int CTYDataSender::SendData() {
    if (m_Queue.size() == 0) {
        return 0;
    }
    TY_LOG_DEBUG("CTYDataSender SendData start ");
    const int queued = GetQueueSize();
    TY_LOG_DEBUG("Send Queue Size : %d ", queued);
    Batch batch = GatherBatch(std::min<std::size_t>(queued, MAX_BATCH_RECORDS));
    if (batch.images.empty()) {
        return 0;
    }
    const int result = m_pProxy->SendData(batch.images, batch.urls) ? 1 : 0;
    TY_LOG_DEBUG("result : %d", result);
    if (result == 0) {
        TY_LOG_ERROR("SendData failed, data clear");
    }
    return result;
}

CTYDataSender::Batch CTYDataSender::GatherBatch(std::size_t records) {
    Batch batch = RoomFor(records);
    try {
        for (std::size_t taken = 0; taken < records && TakeIntoBatch(batch); ++taken) {
        }
    } catch (const std::range_error&) {
        TY_LOG_ERROR("queue is empty!");
    }
    return batch;
}

// Nothing is taken before there is room for it. Records that would stay for want of memory would
// have the thread try again at once, without an end; and there is an end to be waited for when a
// collector goes.
CTYDataSender::Batch CTYDataSender::RoomFor(std::size_t records) {
    Batch batch;
    try {
        batch.images.reserve(records);
        batch.urls.reserve(records);
    } catch (const std::bad_alloc&) {
        DropQueued(records);
        throw;
    }
    return batch;
}

// The first record is taken whatever its size: one that no batch can hold has to go.
bool CTYDataSender::TakeIntoBatch(Batch& batch) {
    const auto taken = m_Queue.take_if([&batch](const TYMediaRecord* pFront) {
        return batch.images.empty() || batch.bytes + WireBytes(pFront) <= MAX_BATCH_BYTES;
    });
    if (!taken) {
        return false;
    }
    const std::unique_ptr<TYMediaRecord> record(*taken);
    if (WireBytes(record.get()) > MAX_BATCH_BYTES) {
        TY_LOG_ERROR("URL of %zu bytes is too long to send, drop event %d", record->strUrl.size(),
                     record->event);
        return true;
    }
    batch.bytes += WireBytes(record.get());
    batch.images.push_back(*record);
    batch.urls.push_back(std::move(record->strUrl));
    return true;
}

void CTYDataSender::ClearCollectedData() {
    TY_LOG_ERROR("drop collected data");
    DropQueued(SIZE_MAX);
}

void CTYDataSender::DropQueued(std::size_t records) {
    try {
        for (std::size_t dropped = 0; dropped < records && m_Queue.size() != 0; ++dropped) {
            delete m_Queue.take();
        }
    } catch (const std::range_error&) {
        TY_LOG_ERROR("queue is empty!");
    }
}

int CTYDataSender::GetPolicyInfo(std::string& appID, int* pInfo) {
    const int result = m_pProxy->GetPolicyInfo(appID, pInfo) ? 1 : 0;
    TY_LOG_DEBUG("result : %d, pInfo : %d ", result, *pInfo);
    return result;
}

void CTYDataSender::SetServiceConnectionCallback(std::function<void(bool)> callback) {
    StopConnectionCheck();
    m_bStopConnectionCheck = false;
    m_ConnectionSleeper.Reset();
    m_ConnectionCallback = std::move(callback);
    if (!StartThread(m_ConnectionThread, [this] { CheckConnection(); })) {
        ReportNoService();
    }
}

void CTYDataSender::StopConnectionCheck() {
    m_bStopConnectionCheck = true;
    m_ConnectionSleeper.Interrupt();
    JoinThread(m_ConnectionThread);
}

// Whoever has no memory to find the service has none to keep records for it.
void CTYDataSender::CheckConnection() {
    try {
        if (AwaitService()) {
            m_ConnectionCallback(true);
            return;
        }
    } catch (const std::bad_alloc& error) {
        TY_BAD_ALLOC(error);
    }
    ReportNoService();
}

void CTYDataSender::ReportNoService() {
    TY_LOG_ERROR("stop connection checking and stop logging");
    m_ConnectionCallback(false);
    ClearCollectedData();
}

bool CTYDataSender::AwaitService() {
    m_pProxy->IsConnected();
    m_pProxy->Kick();
    while (!m_bStopConnectionCheck) {
        if (m_pProxy->IsConnected()) {
            if (m_bStopConnectionCheck) {
                return false;
            }
            TY_LOG_INFO("service is connected!");
            m_pProxy->SetTimeoutMs(kReplyTimeoutMs);
            return true;
        }
        if (GiveUpWaiting()) {
            return false;
        }
        m_pProxy->Kick();
        m_ConnectionSleeper.SleepFor(kPollPeriod);
    }
    return false;
}

bool CTYDataSender::GiveUpWaiting() {
    if (GetQueueSize() <= MAX_WAITING_RECORDS) {
        return false;
    }
    TY_LOG_ERROR("Max log count exceed.");
    m_bStopConnectionCheck = true;
    return true;
}

void CTYDataSender::RegisterTimer(int period) {
    if (m_nTimerId != 0) {
        return;
    }
    m_pTimerLink = std::make_shared<TimerLink>(this);
    auto held = std::make_unique<std::shared_ptr<TimerLink>>(m_pTimerLink);
    OrderHandOver();
    m_nTimerId = g_timeout_add_full(G_PRIORITY_DEFAULT, static_cast<guint>(period), &OnTimer,
                                    held.release(), &FreeTimerLink);
    TY_LOG_DEBUG("CTYDataSender Time : %d,  Timer : %d", period, static_cast<int>(m_nTimerId));
}

void CTYDataSender::UnRegisterTimer() {
    if (m_nTimerId == 0) {
        return;
    }
    g_source_remove(m_nTimerId);
    m_nTimerId = 0;
    m_pTimerLink->gate.Close();
}

int CTYDataSender::OnTimer(void* pLink) {
    OrderHandOver();
    int goesOn = G_SOURCE_REMOVE;
    {
        const auto& link = *static_cast<std::shared_ptr<TimerLink>*>(pLink);
        const CTYCallbackGate::CPass pass(link->gate);
        if (pass) {
            goesOn = DataSendTimerCallback(link->pSender);
        }
    }
    OrderHandOver();
    return goesOn;
}

void CTYDataSender::FreeTimerLink(void* pLink) {
    OrderHandOver();
    delete static_cast<std::shared_ptr<TimerLink>*>(pLink);
}

int CTYDataSender::DataSendTimerCallback(void* pSender) {
    TY_LOG_DEBUG("start callback!!!");
    auto* pThis = static_cast<CTYDataSender*>(pSender);
    if (pThis->GetQueueSize() != 0) {
        pThis->WakeUpThread();
    }
    return G_SOURCE_CONTINUE;
}
