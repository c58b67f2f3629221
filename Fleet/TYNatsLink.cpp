// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYNatsLink.h"

#include "TYLog.h"
#include "TYMutex.h"

#include <cstdlib>
#include <deque>
#include <utility>

#define TY_LOG_TAG "TALLYRA_FLEET"

namespace {

constexpr std::int64_t kConnectMs = 5000;
// A dead connection is noticed after three of these, without any message.
constexpr std::int64_t kPingMs = 10'000;
constexpr int kUnansweredPings = 2;
// Also libnats' own limit for a subscription.
constexpr std::size_t kMostWaiting = 65'536;

std::vector<const char*> PointersTo(const std::vector<std::string>& texts) {
    std::vector<const char*> pointers;
    pointers.reserve(texts.size());
    for (const std::string& text : texts) {
        pointers.push_back(text.c_str());
    }
    return pointers;
}

const char* OrNull(const std::string& text) {
    return text.empty() ? nullptr : text.c_str();
}

}  // namespace

void CheckNats(natsStatus status, const char* pWhat) {
    if (status != NATS_OK) {
        throw CTYLinkLost(std::string(pWhat) + ": " + natsStatus_GetText(status));
    }
}

TYMessage MessageOf(natsMsg* pMessage) {
    TYMessage message{natsMsg_GetSubject(pMessage)};
    const char* pReply = natsMsg_GetReply(pMessage);
    message.reply = pReply != nullptr ? pReply : "";
    message.body.assign(natsMsg_GetData(pMessage),
                        static_cast<std::size_t>(natsMsg_GetDataLength(pMessage)));
    const char** ppKeys = nullptr;
    int count = 0;
    if (natsMsgHeader_Keys(pMessage, &ppKeys, &count) == NATS_OK) {
        for (int i = 0; i < count; ++i) {
            const char* pValue = nullptr;
            if (natsMsgHeader_Get(pMessage, ppKeys[i], &pValue) == NATS_OK && pValue != nullptr) {
                message.headers.emplace_back(ppKeys[i], pValue);
            }
        }
        // Only the array is the caller's, see natsMsgHeader_Keys.
        std::free(static_cast<void*>(ppKeys));
    }
    return message;
}

/// What has arrived. Threads: any; m_Mutex guards all of it.
class CTYNatsLink::CInbound {
  public:
    void Put(TYMessage message) {
        const CTYLock lock(m_Mutex);
        m_Messages.push_back(std::move(message));
        m_Changed.NotifyAll();
    }

    void Lose(const std::string& reason) {
        const CTYLock lock(m_Mutex);
        m_Lost = m_Lost.value_or(reason);
        m_Changed.NotifyAll();
    }

    bool IsFull() {
        const CTYLock lock(m_Mutex);
        return m_Messages.size() >= kMostWaiting;
    }

    std::optional<TYMessage> Take(std::chrono::milliseconds timeout) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        const CTYLock lock(m_Mutex);
        while (m_Messages.empty() && !m_Lost && m_Changed.WaitUntil(m_Mutex, deadline)) {
        }
        if (!m_Messages.empty()) {
            std::optional<TYMessage> message = std::move(m_Messages.front());
            m_Messages.pop_front();
            return message;
        }
        if (m_Lost) {
            throw CTYLinkLost(*m_Lost);
        }
        return std::nullopt;
    }

  private:
    CTYMutex m_Mutex;
    CTYCondition m_Changed;
    std::deque<TYMessage> m_Messages TY_GUARDED_BY(m_Mutex);
    std::optional<std::string> m_Lost TY_GUARDED_BY(m_Mutex);
};

TYNatsPtr<natsOptions> CTYNatsLink::MakeOptions(const TYNatsOptions& options) {
    natsOptions* pOptions = nullptr;
    CheckNats(natsOptions_Create(&pOptions), "options");
    TYNatsPtr<natsOptions> owner(pOptions);
    std::vector<const char*> servers = PointersTo(options.servers);
    CheckNats(natsOptions_SetServers(pOptions, servers.data(), static_cast<int>(servers.size())),
              "servers");
    CheckNats(natsOptions_SetName(pOptions, options.name.c_str()), "name");
    CheckNats(natsOptions_SetTimeout(pOptions, kConnectMs), "timeout");
    CheckNats(natsOptions_SetPingInterval(pOptions, kPingMs), "ping");
    CheckNats(natsOptions_SetMaxPingsOut(pOptions, kUnansweredPings), "ping");
    CheckNats(natsOptions_SetAllowReconnect(pOptions, false), "reconnect");
    CheckNats(natsOptions_SetIgnoreDiscoveredServers(pOptions, true), "discovery");
    CheckNats(natsOptions_SetCustomInboxPrefix(pOptions, OrNull(options.inbox)), "inbox");
    if (!options.credentials.empty()) {
        CheckNats(
            natsOptions_SetUserCredentialsFromFiles(pOptions, options.credentials.c_str(), nullptr),
            "cannot use the credentials");
    }
    if (!options.ca.empty()) {
        CheckNats(natsOptions_SetSecure(pOptions, true), "TLS");
        CheckNats(natsOptions_LoadCATrustedCertificates(pOptions, options.ca.c_str()),
                  "cannot read the authority's certificate");
    }
    if (!options.certificate.empty()) {
        CheckNats(natsOptions_LoadCertificatesChain(pOptions, options.certificate.c_str(),
                                                    OrNull(options.key)),
                  "cannot read the certificate or its key");
    }
    return owner;
}

CTYNatsLink::CTYNatsLink(const TYNatsOptions& options)
    : m_strInboxPrefix(options.inbox.empty() ? "_INBOX" : options.inbox),
      m_pInbound(std::make_shared<CInbound>()) {
    const TYNatsPtr<natsOptions> pOptions = MakeOptions(options);
    auto pShared = std::make_unique<Shared>(m_pInbound);
    CheckNats(natsOptions_SetErrorHandler(pOptions.get(), OnError, pShared.get()), "handler");
    CheckNats(natsOptions_SetClosedCB(pOptions.get(), OnClosed, pShared.get()), "handler");
    natsConnection* pConnection = nullptr;
    natsStatus status = natsConnection_Connect(&pConnection, pOptions.get());
    if (status == NATS_CONNECTION_AUTH_FAILED) {
        // About one in 300 times, libnats 3.4.1 sends the token without its signature.
        status = natsConnection_Connect(&pConnection, pOptions.get());
    }
    CheckNats(status, "cannot connect");
    m_pConnection.reset(pConnection);
    // OnClosed frees it: libnats calls that once for each connection that was made.
    static_cast<void>(pShared.release());
}

CTYNatsLink::~CTYNatsLink() {
    Close();
}

void CTYNatsLink::Close() {
    natsConnection_Close(m_pConnection.get());
}

std::string CTYNatsLink::Inbox() {
    natsInbox* pInbox = nullptr;
    CheckNats(natsInbox_Create(&pInbox), "inbox");
    // Unique, but with libnats' own prefix.
    const std::string unique(pInbox);
    natsInbox_Destroy(pInbox);
    return m_strInboxPrefix + unique.substr(unique.rfind('.'));
}

void CTYNatsLink::Subscribe(const std::string& subject, const std::string& group) {
    auto pShared = std::make_unique<Shared>(m_pInbound);
    natsSubscription* pSubscription = nullptr;
    const natsStatus status =
        group.empty()
            ? natsConnection_Subscribe(&pSubscription, m_pConnection.get(), subject.c_str(),
                                       OnMessage, pShared.get())
            : natsConnection_QueueSubscribe(&pSubscription, m_pConnection.get(), subject.c_str(),
                                            group.c_str(), OnMessage, pShared.get());
    CheckNats(status, "cannot subscribe");
    void* pClosure = pShared.release();
    m_Subscriptions.emplace_back(pSubscription);
    CheckNats(natsSubscription_SetOnCompleteCB(pSubscription, OnSubscriptionDone, pClosure),
              "cannot subscribe");
}

void CTYNatsLink::Publish(const TYMessage& message) {
    natsMsg* pMessage = nullptr;
    CheckNats(natsMsg_Create(&pMessage, message.subject.c_str(), OrNull(message.reply),
                             message.body.data(), static_cast<int>(message.body.size())),
              "message");
    const TYNatsPtr<natsMsg> owner(pMessage);
    for (const auto& [name, value] : message.headers) {
        CheckNats(natsMsgHeader_Set(pMessage, name.c_str(), value.c_str()), "header");
    }
    CheckNats(natsConnection_PublishMsg(m_pConnection.get(), pMessage), "cannot publish");
}

std::optional<TYMessage> CTYNatsLink::Next(std::chrono::milliseconds timeout) {
    return m_pInbound->Take(timeout);
}

// The callbacks run on threads of libnats, whose frames no exception may pass. Without memory for a
// message, the connection is given up: what it brought will come again.
void CTYNatsLink::OnMessage(natsConnection* pConnection, natsSubscription* /*pSubscription*/,
                            natsMsg* pMessage, void* pShared) {
    const TYNatsPtr<natsMsg> owner(pMessage);
    CInbound& inbound = **static_cast<Shared*>(pShared);
    try {
        if (!inbound.IsFull()) {
            inbound.Put(MessageOf(pMessage));
            return;
        }
    } catch (const std::exception&) {
    }
    natsConnection_Close(pConnection);
}

void CTYNatsLink::OnError(natsConnection* pConnection, natsSubscription* /*pSubscription*/,
                          natsStatus status, void* /*pShared*/) {
    const char* pText = nullptr;
    natsConnection_GetLastError(pConnection, &pText);
    TY_LOG_ERROR("the server says: %s",
                 pText != nullptr && *pText != '\0' ? pText : natsStatus_GetText(status));
}

void CTYNatsLink::OnClosed(natsConnection* pConnection, void* pShared) {
    const std::unique_ptr<Shared> owner(static_cast<Shared*>(pShared));
    const char* pText = nullptr;
    natsConnection_GetLastError(pConnection, &pText);
    try {
        (*owner)->Lose(pText != nullptr && *pText != '\0' ? pText : "the connection was closed");
    } catch (const std::exception&) {
        (*owner)->Lose({});
    }
}

void CTYNatsLink::OnSubscriptionDone(void* pShared) {
    delete static_cast<Shared*>(pShared);
}
