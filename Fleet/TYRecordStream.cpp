// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYRecordStream.h"

#include "TYLog.h"
#include "TYSubjects.h"

#include <algorithm>
#include <memory>
#include <utility>

#define TY_LOG_TAG "TALLYRA_FLEET"

namespace {

constexpr std::int64_t kSecond = 1'000'000'000;
constexpr std::int64_t kDay = 86'400 * kSecond;
// Devices send again what is not stored.
constexpr std::int64_t kMaxAge = 7 * kDay;
// Devices repeat a message within seconds; later, the database drops repetitions. A device that
// goes back asks for that at most once a minute: what it then sends must not count as a repetition.
constexpr std::int64_t kDuplicates = 30 * kSecond;
constexpr std::int64_t kMaxBadAge = 30 * kDay;
// A batch with the longest URLs, compressed to nothing less, and its headers.
constexpr std::int32_t kLargestMessage = 512 << 10;
// What is put aside of a bad message. The server's limit for any message is 1 MiB.
constexpr std::size_t kMostPutAside = std::size_t{64} << 10;
constexpr std::int64_t kBadBytes = std::int64_t{64} << 20;
// What a collector took and did not acknowledge is given to another.
constexpr std::int64_t kAckWait = 30 * kSecond;
constexpr std::int64_t kMostUnacknowledged = 8192;
constexpr std::int64_t kReturnMs = 1000;
// A server that has just started may answer late.
constexpr std::int64_t kRequestMs = 5000;
// A question of a device must not hold up storing for longer.
constexpr std::int64_t kStateMs = 1000;

void CheckJetStream(natsStatus status, jsErrCode code, const char* pWhat) {
    if (status != NATS_OK) {
        const char* pText = nats_GetLastError(nullptr);
        throw CTYLinkLost(std::string(pWhat) + ": " +
                          (pText != nullptr ? pText : natsStatus_GetText(status)) + " (" +
                          std::to_string(code) + ")");
    }
}

}  // namespace

CTYRecordStream::CTYRecordStream(CTYNatsLink& link, const Options& options)
    : m_Options(options), m_Link(link) {
    jsOptions contextOptions;
    jsOptions_Init(&contextOptions);
    contextOptions.Wait = kRequestMs;
    jsCtx* pContext = nullptr;
    CheckNats(natsConnection_JetStream(&pContext, link.Handle(), &contextOptions), "JetStream");
    m_pContext.reset(pContext);
    MakeStreams();
    MakeConsumer();
    Subscribe();
}

CTYRecordStream::~CTYRecordStream() {
    m_Link.Close();
    natsMsgList_Destroy(&m_Fetched);
}

// A stream that exists is used as it is: an operator may have changed it.
void CTYRecordStream::MakeStream(jsStreamConfig config) {
    config.Replicas = m_Options.replicas;
    config.Storage = js_FileStorage;
    // A server sends its acknowledgement to any subject that a device names, those of its own API
    // included.
    config.DenyDelete = true;
    config.DenyPurge = true;
    jsErrCode code{};
    jsStreamInfo* pInfo = nullptr;
    natsStatus status = js_GetStreamInfo(&pInfo, m_pContext.get(), config.Name, nullptr, &code);
    jsStreamInfo_Destroy(pInfo);
    if (code == JSStreamNotFoundErr) {
        status = js_AddStream(nullptr, m_pContext.get(), &config, nullptr, &code);
    }
    // Another collector may have made it meanwhile.
    if (code != JSStreamNameExistErr) {
        CheckJetStream(status, code, "cannot make the stream");
    }
}

void CTYRecordStream::MakeStreams() {
    const char* pSubject = TYSubjects::kAllRecords;
    jsStreamConfig config;
    jsStreamConfig_Init(&config);
    config.Name = TYSubjects::kStream;
    config.Subjects = &pSubject;
    config.SubjectsLen = 1;
    config.Retention = js_WorkQueuePolicy;
    // A full stream refuses, so that devices keep what they have.
    config.Discard = js_DiscardNew;
    config.MaxMsgSize = kLargestMessage;
    config.MaxBytes = m_Options.streamBytes;
    config.MaxAge = kMaxAge;
    config.Duplicates = kDuplicates;
    MakeStream(config);

    pSubject = TYSubjects::kAllBad;
    jsStreamConfig_Init(&config);
    config.Name = TYSubjects::kBadStream;
    config.Subjects = &pSubject;
    config.SubjectsLen = 1;
    config.Discard = js_DiscardOld;
    config.MaxBytes = kBadBytes;
    config.MaxAge = kMaxBadAge;
    MakeStream(config);
}

void CTYRecordStream::MakeConsumer() {
    jsConsumerConfig config;
    jsConsumerConfig_Init(&config);
    config.Durable = TYSubjects::kConsumer;
    config.AckPolicy = js_AckExplicit;
    config.AckWait = kAckWait;
    config.MaxDeliver = -1;
    config.MaxAckPending = kMostUnacknowledged;
    jsErrCode code{};
    jsConsumerInfo* pInfo = nullptr;
    natsStatus status = js_GetConsumerInfo(&pInfo, m_pContext.get(), TYSubjects::kStream,
                                           TYSubjects::kConsumer, nullptr, &code);
    jsConsumerInfo_Destroy(pInfo);
    if (code == JSConsumerNotFoundErr) {
        status =
            js_AddConsumer(nullptr, m_pContext.get(), TYSubjects::kStream, &config, nullptr, &code);
    }
    CheckJetStream(status, code, "cannot make the consumer");
}

void CTYRecordStream::Subscribe() {
    jsSubOptions options;
    jsSubOptions_Init(&options);
    // Bound to a consumer that exists, because libnats deletes one that it has made.
    options.Stream = TYSubjects::kStream;
    options.Consumer = TYSubjects::kConsumer;
    options.ManualAck = true;
    natsSubscription* pSubscription = nullptr;
    jsErrCode code{};
    const natsStatus status = js_PullSubscribe(&pSubscription, m_pContext.get(), nullptr, nullptr,
                                               nullptr, &options, &code);
    CheckJetStream(status, code, "cannot use the consumer");
    m_pSubscription.reset(pSubscription);
}

std::vector<ITYRecordStream::Delivery> CTYRecordStream::Fetch(std::chrono::milliseconds timeout) {
    natsMsgList_Destroy(&m_Fetched);
    m_Fetched = {};
    jsErrCode code{};
    const natsStatus status = natsSubscription_Fetch(&m_Fetched, m_pSubscription.get(),
                                                     m_Options.atOnce, timeout.count(), &code);
    if (status != NATS_TIMEOUT) {
        CheckJetStream(status, code, "cannot fetch");
    }
    std::vector<Delivery> deliveries;
    for (int i = 0; i < m_Fetched.Count; ++i) {
        Delivery delivery{MessageOf(m_Fetched.Msgs[i])};
        jsMsgMetaData* pMetaData = nullptr;
        if (natsMsg_GetMetaData(&pMetaData, m_Fetched.Msgs[i]) == NATS_OK) {
            delivery.times = pMetaData->NumDelivered;
            jsMsgMetaData_Destroy(pMetaData);
        }
        deliveries.push_back(std::move(delivery));
    }
    return deliveries;
}

void CTYRecordStream::Acknowledge(std::size_t index) {
    CheckNats(natsMsg_Ack(m_Fetched.Msgs[index], nullptr), "cannot acknowledge");
}

void CTYRecordStream::Return(std::size_t index) {
    CheckNats(natsMsg_NakWithDelay(m_Fetched.Msgs[index], kReturnMs, nullptr), "cannot return");
}

void CTYRecordStream::PutAside(const TYMessage& message, const std::string& reason) {
    natsMsg* pMessage = nullptr;
    const std::string subject = TYSubjects::Bad(std::string(TYSubjects::Part(message.subject, 2)));
    CheckNats(natsMsg_Create(&pMessage, subject.c_str(), nullptr, message.body.data(),
                             static_cast<int>(std::min(message.body.size(), kMostPutAside))),
              "message");
    const TYNatsPtr<natsMsg> owner(pMessage);
    for (const auto& [name, value] : message.headers) {
        // The id would make the server drop what a device sent twice.
        if (name.starts_with("Tallyra-") && value.size() <= kMostPutAside) {
            CheckNats(natsMsgHeader_Set(pMessage, name.c_str(), value.c_str()), "header");
        }
    }
    CheckNats(natsMsgHeader_Set(pMessage, "Tallyra-Subject", message.subject.c_str()), "header");
    CheckNats(natsMsgHeader_Set(pMessage, "Tallyra-Reason", reason.c_str()), "header");
    jsErrCode code{};
    const natsStatus status = js_PublishMsg(nullptr, m_pContext.get(), pMessage, nullptr, &code);
    CheckJetStream(status, code, "cannot put a message aside");
}

TYStreamState CTYRecordStream::State() {
    jsOptions options;
    jsOptions_Init(&options);
    options.Wait = kStateMs;
    jsErrCode code{};
    jsStreamInfo* pStream = nullptr;
    natsStatus status =
        js_GetStreamInfo(&pStream, m_pContext.get(), TYSubjects::kStream, &options, &code);
    CheckJetStream(status, code, "cannot ask for the stream");
    TYStreamState state{std::to_string(pStream->Created), 0};
    jsStreamInfo_Destroy(pStream);
    jsConsumerInfo* pConsumer = nullptr;
    status = js_GetConsumerInfo(&pConsumer, m_pContext.get(), TYSubjects::kStream,
                                TYSubjects::kConsumer, &options, &code);
    CheckJetStream(status, code, "cannot ask for the consumer");
    state.processedUpTo = static_cast<std::int64_t>(pConsumer->AckFloor.Stream);
    jsConsumerInfo_Destroy(pConsumer);
    return state;
}
