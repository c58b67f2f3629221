// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYDataSender.h"

#include "TYBatch.h"
#include "TYLog.h"
#include "tallyra/TYTypes.h"

#include <new>
#include <utility>

#define TY_LOG_TAG TY_TAG_UTIL

// The sender trades delay against the cost of a call: each call of the service is a round trip over
// the bus, and a player reports several events a second.
//
// So records wait in a queue, and one thread empties it in batches. Four things start a batch:
//
// - the tenth waiting record;
// - the play time that follows a STOP, because the playback is over and no record may follow;
// - the timer, once a minute, where the host runs a GLib main loop;
// - the worker's own wait, which ends after 20 s at the latest.
//
// A batch is everything that was queued when it began. A call that fails is not repeated, and ends
// its batch: a service that hangs would otherwise cost 3 s for each call, and the queue would grow
// faster than it empties. The records of a failed batch are lost by design: they have left the
// queue, and a repeated call could deliver them twice.
//
// What must always hold:
//
// - InsertData and WakeUpThread never wait for a call, so a player never waits for the bus.
// - A record is freed once, by the thread that took it from the queue.
// - From BeginShutdown on, all unanswered method calls together cost one reply timeout.

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
constexpr std::size_t kRecordsThatWake = 10;

std::unique_ptr<CTYServiceProxy> MakeProxy(ITYBus& bus, ITYClock& clock) {
    try {
        return std::make_unique<CTYServiceProxy>(bus, clock);
    } catch (const std::bad_alloc& error) {
        TY_BAD_ALLOC(error);
        throw;
    }
}

}  // namespace

CTYDataSender::CTYDataSender(ITYBus& bus, ITYClock& clock)
    : m_ConnectionCheck(
          {.size = [this] { return m_Queue.size(); }, .drop = [this] { ClearCollectedData(); }},
          clock),
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

void CTYDataSender::BeginShutdown() {
    m_pProxy->BeginShutdown();
}

void CTYDataSender::WakeUpThread() noexcept {
    m_Worker.WakeUpThread();
}

int CTYDataSender::GetQueueSize() const {
    return static_cast<int>(m_Queue.size());
}

void CTYDataSender::InsertData(TYMediaRecord* pRecord) {
    // Read first: once the record is queued, the sender's thread may free it at any moment.
    const unsigned char event = pRecord->event;
    std::unique_ptr<TYMediaRecord> record(pRecord);
    m_Queue.push(pRecord);
    static_cast<void>(record.release());  // the queue owns it
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
    const std::size_t queued = m_Queue.size();
    TY_LOG_DEBUG("Send Queue Size : %d ", static_cast<int>(queued));
    CTYBatch batch(m_Queue, queued);
    CTYBatch::Call call;
    if (!batch.Next(call)) {
        return 0;
    }
    int result = 0;
    do {
        result = m_pProxy->SendData(call.images, call.urls) ? 1 : 0;
    } while (result != 0 && batch.Next(call));
    TY_LOG_DEBUG("result : %d", result);
    if (result == 0) {
        TY_LOG_ERROR("SendData failed, data clear");
    }
    return result;
}

void CTYDataSender::ClearCollectedData() {
    TY_LOG_ERROR("drop collected data");
    try {
        while (m_Queue.size() != 0) {
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
    m_ConnectionCheck.Start(*m_pProxy, std::move(callback));
}

void CTYDataSender::StopConnectionCheck() {
    m_ConnectionCheck.Stop();
}

void CTYDataSender::RegisterTimer(int period) {
    m_Timer.Register(period);
}

void CTYDataSender::UnRegisterTimer() {
    m_Timer.UnRegister();
}

int CTYDataSender::DataSendTimerCallback(void* pSender) {
    TY_LOG_DEBUG("start callback!!!");
    auto* pThis = static_cast<CTYDataSender*>(pSender);
    if (pThis->GetQueueSize() != 0) {
        pThis->WakeUpThread();
    }
    return 1;
}
