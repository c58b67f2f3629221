// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYSERVICEHANDLER_H
#define TALLYRA_TYSERVICEHANDLER_H

#include "TYBatchReader.h"
#include "TYCallShape.h"
#include "TYDbusPort.h"
#include "TYMessagePtr.h"
#include "TYMessageReader.h"
#include "TYMutex.h"
#include "TYPeerQueue.h"
#include "TYPeers.h"
#include "TYRecordFilter.h"
#include "TYStoreKeeper.h"

#include <dbus/dbus.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

/// How the service treats calls.
struct TYHandlerOptions {
    bool discard = false;      ///< accepts batches without storing them, for benchmarks
    bool keepQueries = false;  ///< stores URLs as they were sent
    std::size_t queueBytes = CTYPeerQueue::kMaxBytes;  ///< limit for all waiting calls
};

/// Answers the calls of players. Validates everything in a message before using it. Every record
/// that arrives is stored or counted as lost.
///
/// Unknown methods and malformed bodies get a D-Bus error. A call that cannot be served gets status
/// 0. A valid batch that could not be stored gets status 1 and acceptance 0.
///
/// Threads: two, one that calls Receive, and one that calls Serve and has the store. The mutex
/// guards what both use; it is not held while the store works. Receive holds it while it asks the
/// bus for credentials.
class CTYServiceHandler : public CDbusPort {
  public:
    /// Limit for the body of a call: as many images as the library sends in one call, 1 MiB, and
    /// what the marshalling adds.
    static constexpr std::size_t kMaxCallBytes =
        36 * sizeof(TYMediaData) + (std::size_t{1} << 20) + (std::size_t{4} << 10);
    /// Limit for the whole message. The bodies of larger ones need not be read.
    static constexpr std::size_t kMaxMessage = kMaxCallBytes + CTYMessageReader::kMaxHeader;

    /// Sends a reply. Called by both threads.
    using Send = std::function<void(TYMessagePtr pReply)>;

    CTYServiceHandler(CTYStoreKeeper& store, CTYPeers& peers, Send send,
                      TYHandlerOptions options = {})
        : m_Send(std::move(send)),
          m_bDiscard(options.discard),
          m_Store(store),
          m_Filter(store, options.keepQueries),
          m_Peers(peers),
          m_Queue(options.queueBytes) {}

    bool IsReady() override { return true; }

    /// Takes a message that has arrived. Answers it at once if it is refused or does not need the
    /// store; otherwise it waits for its turn. Other calls may be refused to make room for it.
    void Receive(const TYArrival& arrival) TY_EXCLUDES(m_Mutex);

    /// @return whether there is something to do for Serve
    bool HasWork() TY_EXCLUDES(m_Mutex);

    /// Serves the next call, and counts what Receive has refused.
    /// @return whether more calls wait
    bool Serve() TY_EXCLUDES(m_Mutex);

  private:
    using Values = std::vector<CDbusValue>;

    // On arrival.
    TYMessagePtr Refuse(DBusMessage* pHeader, CTYPeers::Peer& peer, const TYCallShape& shape)
        TY_REQUIRES(m_Mutex);
    TYMessagePtr RefuseForeign(DBusMessage* pHeader, CTYPeers::Peer& peer) TY_REQUIRES(m_Mutex);
    TYMessagePtr RefuseExcess(DBusMessage* pHeader, CTYPeers::Peer& peer, const TYCallShape& shape)
        TY_REQUIRES(m_Mutex);
    TYMessagePtr RefuseParsed(DBusMessage* pHeader, DBusMessage* pCall, CTYPeers::Peer& peer,
                              const TYCallShape& shape) TY_REQUIRES(m_Mutex);
    TYMessagePtr RefuseAsBusy(DBusMessage* pCall, CTYPeers::Peer& peer, const TYCallShape& shape)
        TY_REQUIRES(m_Mutex);
    TYMessagePtr ReplyAtOnce(DBusMessage* pCall, CTYPeers::Peer& peer, const TYCallShape& shape)
        TY_REQUIRES(m_Mutex);
    void DropExcess() TY_REQUIRES(m_Mutex);
    void CountLoss(TYLossReason reason, const TYCallShape& shape) TY_REQUIRES(m_Mutex);
    void Complain(CTYPeers::Peer& peer, TYComplaint complaint, const std::string& detail)
        TY_REQUIRES(m_Mutex);

    // On its turn.
    std::optional<TYWaitingCall> TakeNext() TY_EXCLUDES(m_Mutex);
    TYMessagePtr Dispatch(const TYWaitingCall& call) TY_EXCLUDES(m_Mutex);
    Values SendData(const TYWaitingCall& call) TY_EXCLUDES(m_Mutex);
    bool Store(TYBatch& batch, const TYComplain& complain) TY_EXCLUDES(m_Mutex);
    Values GetPolicyInfo(const TYWaitingCall& call) TY_EXCLUDES(m_Mutex);

    void Answer(DBusMessage* pCall, TYMessagePtr pReply) const;
    TYMessagePtr Reply(DBusMessage* pCall, Values values);
    static TYMessagePtr Error(DBusMessage* pCall, const char* pName, const std::string& text);

    // Set once.
    const Send m_Send;
    const bool m_bDiscard;
    // Of the thread that serves.
    CTYStoreKeeper& m_Store;
    CTYRecordFilter m_Filter;
    // Shared.
    CTYMutex m_Mutex;
    CTYPeers& m_Peers TY_GUARDED_BY(m_Mutex);
    CTYPeerQueue m_Queue TY_GUARDED_BY(m_Mutex);
    CTYLosses m_Losses TY_GUARDED_BY(m_Mutex);
};

#endif  // TALLYRA_TYSERVICEHANDLER_H
