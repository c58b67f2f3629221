// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYSERVICEHANDLER_H
#define TALLYRA_TYSERVICEHANDLER_H

#include "TYDbusPort.h"
#include "TYMessagePtr.h"
#include "TYPeers.h"
#include "TYStoreKeeper.h"

#include <dbus/dbus.h>

#include <memory>
#include <string>
#include <vector>

/// Answers the calls of players. Validates everything in a message before using it.
///
/// Unknown methods and malformed bodies get a D-Bus error. A call that cannot be served gets status
/// 0. A valid batch that could not be stored gets status 1 and acceptance 0.
///
/// Threads: one.
class CTYServiceHandler : public CDbusPort {
  public:
    /// Limit for the images and URLs of a batch together. The library sends at most half of it.
    static constexpr std::size_t kMaxBatchBytes = std::size_t{16} << 20;

    /// @param discard  accepts batches without storing them, for benchmarks
    CTYServiceHandler(CTYStoreKeeper& store, CTYPeers& peers, bool discard = false)
        : m_Store(store), m_Peers(peers), m_bDiscard(discard) {}

    bool IsReady() override { return true; }

    /// @return the reply; null if the message expects none, or on allocation failure
    TYMessagePtr Handle(DBusMessage* pMessage);

    /// @return whether the body is a sequence of values, each with the payload of its type
    static bool IsWellFormed(DBusMessage* pMessage);

  private:
    using Values = std::vector<CDbusValue>;

    TYMessagePtr Call(DBusMessage* pCall);
    TYMessagePtr Dispatch(DBusMessage* pCall, CTYPeers::Peer& peer);
    bool IsWithinBudget(DBusMessage* pCall, CTYPeers::Peer& peer);
    Values SendData(CTYPeers::Peer& peer, const Values& arguments);
    Values GetPolicyInfo(const std::string& application);
    bool ToBatch(CTYPeers::Peer& peer, const Values& arguments, TYBatch& batch);
    bool TakeRecord(CTYPeers::Peer& peer, const CDbusValue& value, TYBatch& batch);
    void LogAnomalies(CTYPeers::Peer& peer, const TYMediaData& record);
    TYMessagePtr Refuse(DBusMessage* pCall, CTYPeers::Peer& peer);
    TYMessagePtr Reply(DBusMessage* pCall, Values values);
    static TYMessagePtr Error(DBusMessage* pCall, const char* pName, const std::string& text);
    void Complain(CTYPeers::Peer& peer, TYComplaint complaint, const std::string& detail);

    CTYStoreKeeper& m_Store;
    CTYPeers& m_Peers;
    const bool m_bDiscard;
};

#endif  // TALLYRA_TYSERVICEHANDLER_H
