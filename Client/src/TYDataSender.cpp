// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYDataSender.h"

#include "TYBatch.h"
#include "TYLog.h"
#include "TYProcess.h"
#include "TYRaceAnnotation.h"
#include "tallyra/TYTypes.h"

#include <fcntl.h>
#include <glib.h>
#include <unistd.h>

#include <array>
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

// The first source of a process makes GLib's default main context, and GLib aborts when it finds
// no descriptor for it. The race with a host that takes the last ones right here is lost.
bool HasDescriptorsForMainContext() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        return false;
    }
    close(ends[0]);
    close(ends[1]);
    return true;
}

std::unique_ptr<CTYServiceProxy> MakeProxy(ITYBus& bus) {
    try {
        return std::make_unique<CTYServiceProxy>(bus);
    } catch (const std::bad_alloc& error) {
        TY_BAD_ALLOC(error);
        throw;
    }
}

}  // namespace

/// What a timer holds instead of the sender itself: the host's main loop may be about to call when
/// the sender goes.
struct CTYDataSender::TimerLink {
    explicit TimerLink(CTYDataSender* pOwner) : pSender(pOwner) {}

    CTYDataSender* const pSender;
    const CTYProcess process;
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
    m_pProxy = MakeProxy(bus);
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

// The first call that fails ends the batch: the service is not asked for the rest of it.
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
    StopConnectionCheck();
    m_bStopConnectionCheck = false;
    m_ConnectionSleeper.Reset();
    m_ConnectionCallback = std::move(callback);
    if (!m_ConnectionThread.Start<&CTYDataSender::CheckConnection>(this)) {
        ReportNoService();
    }
}

void CTYDataSender::StopConnectionCheck() {
    m_bStopConnectionCheck = true;
    m_ConnectionSleeper.Interrupt();
    m_ConnectionThread.Join();
}

// Out of memory here: stop collecting.
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
    if (GetQueueSize() <= kMaxWaitingRecords) {
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
    if (!HasDescriptorsForMainContext()) {
        TY_LOG_ERROR("no file descriptor for the send timer, records wait up to 20 s without it");
        return;
    }
    m_pTimerLink = std::make_shared<TimerLink>(this);
    auto held = std::make_unique<std::shared_ptr<TimerLink>>(m_pTimerLink);
    TY_RACE_RELEASE(held.get());
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
    TY_RACE_ACQUIRE(pLink);
    const auto& link = *static_cast<std::shared_ptr<TimerLink>*>(pLink);
    // A forked child has inherited the source, and may have deleted the sender.
    if (!link->process.IsCurrent()) {
        return G_SOURCE_REMOVE;
    }
    int goesOn = G_SOURCE_REMOVE;
    {
        const CTYCallbackGate::CPass pass(link->gate);
        if (pass) {
            goesOn = DataSendTimerCallback(link->pSender);
        }
    }
    TY_RACE_RELEASE(pLink);
    return goesOn;
}

void CTYDataSender::FreeTimerLink(void* pLink) {
    TY_RACE_ACQUIRE(pLink);
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
