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

/// Answers the calls of players. Trusts nothing of what it is sent.
///
/// Calls that are none of ours, and bodies that are none, get a D-Bus error; calls of ours that
/// cannot be served get the status 0; a batch that was understood but not stored gets the
/// acceptance 0.
///
/// Threads: one.
class CTYServiceHandler : public CDbusPort {
  public:
    /// Twice what the library puts into a batch; what is bigger is refused.
    static constexpr std::size_t kMaxBatchBytes = std::size_t{16} << 20;

    /// @param discard  accepts batches without storing them, which measures everything else
    CTYServiceHandler(CTYStoreKeeper& store, CTYPeers& peers, bool discard = false)
        : m_Store(store), m_Peers(peers), m_bDiscard(discard) {}

    bool IsReady() override { return true; }

    /// @return the reply to a message; null when it asks for none, or memory for it is lacking
    TYMessagePtr Handle(DBusMessage* pMessage);

    /// @return whether a body is a run of values of which each has the payload that its type says
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
    void Look(CTYPeers::Peer& peer, const TYMediaData& record);
    TYMessagePtr Refuse(DBusMessage* pCall, CTYPeers::Peer& peer);
    TYMessagePtr Reply(DBusMessage* pCall, Values values);
    static TYMessagePtr Error(DBusMessage* pCall, const char* pName, const std::string& text);
    void Complain(CTYPeers::Peer& peer, TYComplaint complaint, const std::string& detail);

    CTYStoreKeeper& m_Store;
    CTYPeers& m_Peers;
    const bool m_bDiscard;
};

#endif  // TALLYRA_TYSERVICEHANDLER_H
