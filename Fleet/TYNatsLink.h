// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYNATSLINK_H
#define TALLYRA_TYNATSLINK_H

#include "ITYFleetLink.h"

#include <nats/nats.h>

#include <memory>
#include <vector>

/// How to reach the servers, and as whom.
struct TYNatsOptions {
    std::vector<std::string> servers{};  ///< URLs, such as tls://host:4222; one is chosen
    std::string credentials{};           ///< file with JWT and seed; empty: none
    std::string ca{};                    ///< file with the servers' authority; empty: no TLS
    std::string certificate{};           ///< file of this client; empty: none
    std::string key{};                   ///< file with the key of the certificate
    std::string name{};                  ///< shown in the servers' logs
    std::string inbox{};                 ///< prefix of inboxes; empty: "_INBOX"
};

/// While alive, libnats works. Its destructor waits for the threads of libnats: the program must
/// not exit while they run.
class CTYNatsLibrary {
  public:
    CTYNatsLibrary() { nats_Open(-1); }
    ~CTYNatsLibrary() { nats_CloseAndWait(kPatienceMs); }
    CTYNatsLibrary(const CTYNatsLibrary&) = delete;
    CTYNatsLibrary& operator=(const CTYNatsLibrary&) = delete;

  private:
    static constexpr std::int64_t kPatienceMs = 2000;
};

/// Frees objects of libnats.
struct TYNatsFree {
    void operator()(natsOptions* p) const { natsOptions_Destroy(p); }
    void operator()(natsConnection* p) const { natsConnection_Destroy(p); }
    void operator()(natsSubscription* p) const { natsSubscription_Destroy(p); }
    void operator()(natsMsg* p) const { natsMsg_Destroy(p); }
    void operator()(jsCtx* p) const { jsCtx_Destroy(p); }
};
template <class Object>
using TYNatsPtr = std::unique_ptr<Object, TYNatsFree>;

/// @throws CTYLinkLost  unless the status is NATS_OK
void CheckNats(natsStatus status, const char* pWhat);

/// @return a copy
TYMessage MessageOf(natsMsg* pMessage);

/// A connection by libnats, without its automatic reconnection.
///
/// Threads: one uses it. Threads of libnats put messages into its inbound queue, which has a lock
/// of its own. They may do so after the link is destroyed, so they share its ownership.
class CTYNatsLink : public ITYFleetLink {
  public:
    /// Connects; takes a few seconds at most.
    /// @throws CTYLinkLost  if no server could be reached, or it refused
    explicit CTYNatsLink(const TYNatsOptions& options);
    ~CTYNatsLink() override;
    CTYNatsLink(const CTYNatsLink&) = delete;
    CTYNatsLink& operator=(const CTYNatsLink&) = delete;

    std::string Inbox() override;
    void Subscribe(const std::string& subject) override { Subscribe(subject, ""); }
    /// @param group  of connections of which only one receives each message; empty: none
    void Subscribe(const std::string& subject, const std::string& group);
    void Publish(const TYMessage& message) override;
    std::optional<TYMessage> Next(std::chrono::milliseconds timeout) override;

    /// Ends the connection: what is destroyed after it gets no more messages. libnats must not
    /// read from a connection while its subscriptions are destroyed.
    void Close();
    natsConnection* Handle() const { return m_pConnection.get(); }

  private:
    class CInbound;
    using Shared = std::shared_ptr<CInbound>;

    static void OnMessage(natsConnection* pConnection, natsSubscription* pSubscription,
                          natsMsg* pMessage, void* pShared);
    static void OnError(natsConnection* pConnection, natsSubscription* pSubscription,
                        natsStatus status, void* pShared);
    static void OnClosed(natsConnection* pConnection, void* pShared);
    static void OnSubscriptionDone(void* pShared);
    static TYNatsPtr<natsOptions> MakeOptions(const TYNatsOptions& options);

    const std::string m_strInboxPrefix;
    Shared m_pInbound;
    TYNatsPtr<natsConnection> m_pConnection;
    std::vector<TYNatsPtr<natsSubscription>> m_Subscriptions;
};

#endif  // TALLYRA_TYNATSLINK_H
