// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYServiceHandler.h"

#include "TYBatchReader.h"
#include "TYBusNames.h"
#include "TYRecordImage.h"
#include "TYWallClock.h"

#include <cstring>
#include <map>
#include <string_view>
#include <utility>

// Problem: anybody on the bus may send anything, as fast and as large as the bus allows. Memory,
// time and the store must be shared so that a peer loses only records of its own, and every record
// that is not stored must be counted.
//
// Idea: a message is handled twice, by two threads.
//
//   On arrival, Receive checks what can be told from the header and the first bytes: address, size,
//   the user's budget, the room in the queue. Then it parses the call, and checks the types of the
//   arguments and the sender's credentials. A call that fails is answered at once, so refused calls
//   never fill the queue, and those over a limit are not even parsed. Kick is answered at once,
//   too: the library waits only 200 ms for it.
//
//   On its turn (see CTYPeerQueue), Serve reads a call, applies the policies, redacts URLs, and
//   stores the records. That takes as long as the disk takes.
//
// Always true:
// - Each call that expects a reply gets exactly one: from Receive, on its turn, or when it is
//   dropped from the queue.
// - A record of a batch is stored, or counted as lost once. Records are counted even if the rest of
//   the batch cannot be read.
// - A refused call costs its user's budget nothing.
// - Nothing is stored for a sender whose user is unknown.

namespace {

// What a waiting message takes besides texts and images, at most.
constexpr std::size_t kMessageOverhead = 1024;
bool IsOrMissing(const char* pText, const char* pExpected) {
    return pText == nullptr || std::strcmp(pText, pExpected) == 0;
}

std::vector<CDbusValue> Status(int status) {
    return {CDbusValue::OfInt(status)};
}

std::vector<CDbusValue> StatusAnd(int value) {
    return {CDbusValue::OfInt(1), CDbusValue::OfInt(value)};
}

bool IsQuick(const TYCallShape& shape) {
    return shape.records == 0 && shape.bytes < sizeof(TYMediaData);
}

}  // namespace

void CTYServiceHandler::Receive(const TYArrival& arrival) {
    DBusMessage* pHeader = arrival.header.get();
    if (dbus_message_get_type(pHeader) != DBUS_MESSAGE_TYPE_METHOD_CALL) {
        return;
    }
    const char* pSender = dbus_message_get_sender(pHeader);
    const CTYLock lock(m_Mutex);
    const auto peer = m_Peers.Get(pSender != nullptr ? pSender : "", CTYPeers::Clock::now());
    TYCallShape shape = ShapeOf(arrival);
    TYMessagePtr reply = Refuse(pHeader, *peer, shape);
    TYMessagePtr call = reply == nullptr ? arrival.Parse() : nullptr;
    if (reply == nullptr) {
        reply = RefuseParsed(pHeader, call.get(), *peer, shape);
    }
    if (reply == nullptr) {
        reply = ReplyAtOnce(call.get(), *peer, shape);
    }
    if (reply != nullptr) {
        Answer(pHeader, std::move(reply));
        return;
    }
    const std::size_t bytes = shape.bytes + kMessageOverhead;
    m_Queue.Add({std::move(call), peer, peer->identity, bytes, IsQuick(shape), std::move(shape)});
    DropExcess();
}

bool CTYServiceHandler::HasWork() {
    const CTYLock lock(m_Mutex);
    return !m_Queue.IsEmpty() || !m_Losses.IsEmpty();
}

bool CTYServiceHandler::Serve() {
    const std::optional<TYWaitingCall> call = TakeNext();
    if (call) {
        Answer(call->message.get(), Dispatch(*call));
    }
    const CTYLock lock(m_Mutex);
    return !m_Queue.IsEmpty();
}

std::optional<TYWaitingCall> CTYServiceHandler::TakeNext() {
    CTYLosses losses;
    const CTYLock lock(m_Mutex);
    std::swap(losses, m_Losses);
    for (const auto& [key, loss] : losses.All()) {
        m_Store.CountLoss(key.first, key.second, loss.records);
    }
    return m_Queue.Take();
}

/// @return the reply to a call that is refused before it is parsed; null if it is not
TYMessagePtr CTYServiceHandler::Refuse(DBusMessage* pHeader, CTYPeers::Peer& peer,
                                       const TYCallShape& shape) {
    if (TYMessagePtr refusal = RefuseForeign(pHeader, peer)) {
        return refusal;
    }
    if (TYMessagePtr refusal = RefuseExcess(pHeader, peer, shape)) {
        return refusal;
    }
    if (!IsQuick(shape) && m_Queue.IsTooMuch(peer, shape.bytes + kMessageOverhead)) {
        return RefuseAsBusy(pHeader, peer, shape);
    }
    return nullptr;
}

/// @return the reply to a call that may not wait for its turn; null if it may
TYMessagePtr CTYServiceHandler::RefuseParsed(DBusMessage* pHeader, DBusMessage* pCall,
                                             CTYPeers::Peer& peer, const TYCallShape& shape) {
    if (pCall == nullptr || !IsWellFormed(pCall)) {
        CountLoss(TYLossReason::BAD_BATCH, shape);
        Complain(peer, TYComplaint::MALFORMED, "");
        return Error(pHeader, DBUS_ERROR_INVALID_ARGS, "the body is not a sequence of values");
    }
    if (shape.isBatch && !peer.identity.uid) {
        CountLoss(TYLossReason::SENDER, shape);
        Complain(peer, TYComplaint::ANONYMOUS, "");
        return Reply(pHeader, StatusAnd(0));
    }
    return nullptr;
}

/// @return the D-Bus error for a call of an unknown object, interface or method; null otherwise
TYMessagePtr CTYServiceHandler::RefuseForeign(DBusMessage* pHeader, CTYPeers::Peer& peer) {
    TYMessagePtr refusal;
    if (!IsOrMissing(dbus_message_get_path(pHeader), TYBusNames::kPath)) {
        refusal = Error(pHeader, DBUS_ERROR_UNKNOWN_OBJECT, "unknown object");
    } else if (!IsOrMissing(dbus_message_get_interface(pHeader), TYBusNames::kInterface)) {
        refusal = Error(pHeader, DBUS_ERROR_UNKNOWN_INTERFACE, "unknown interface");
    } else if (!IsOrMissing(dbus_message_get_member(pHeader), TYBusNames::kMethod)) {
        refusal = Error(pHeader, DBUS_ERROR_UNKNOWN_METHOD,
                        "unknown method; the only method is TYCallFunction");
    } else {
        return nullptr;
    }
    const char* pMember = dbus_message_get_member(pHeader);
    Complain(peer, TYComplaint::FOREIGN, std::string(": ") + (pMember != nullptr ? pMember : ""));
    return refusal;
}

/// @return status 0 for a call that is too large or exceeds the user's budget; null otherwise
TYMessagePtr CTYServiceHandler::RefuseExcess(DBusMessage* pHeader, CTYPeers::Peer& peer,
                                             const TYCallShape& shape) {
    if (shape.bytes > kMaxCallBytes) {
        CountLoss(TYLossReason::BYTES, shape);
        Complain(peer, TYComplaint::BATCH_TOO_BIG, ": " + std::to_string(shape.bytes) + " bytes");
        return Reply(pHeader, Status(0));
    }
    const TYExcess excess = m_Peers.Spend(peer, shape.records, shape.bytes, CTYPeers::Clock::now());
    if (excess == TYExcess::NONE) {
        return nullptr;
    }
    CountLoss(excess == TYExcess::RECORDS ? TYLossReason::RATE : TYLossReason::BYTES, shape);
    Complain(peer, TYComplaint::FLOOD, "");
    return Reply(pHeader, Status(0));
}

void CTYServiceHandler::DropExcess() {
    while (const std::optional<TYWaitingCall> call = m_Queue.TakeExcess()) {
        DBusMessage* pCall = call->message.get();
        Answer(pCall, RefuseAsBusy(pCall, *call->peer, call->shape));
    }
}

TYMessagePtr CTYServiceHandler::RefuseAsBusy(DBusMessage* pCall, CTYPeers::Peer& peer,
                                             const TYCallShape& shape) {
    CountLoss(TYLossReason::BUSY, shape);
    Complain(peer, TYComplaint::BUSY, "");
    return Reply(pCall, Status(0));
}

/// @return the reply to a call that does not need the store; null otherwise
TYMessagePtr CTYServiceHandler::ReplyAtOnce(DBusMessage* pCall, CTYPeers::Peer& peer,
                                            const TYCallShape& shape) {
    if (shape.isBatch) {
        return nullptr;
    }
    const Values values = MessageToList(pCall);
    const std::string function =
        values.empty() || values[0].type != DBUS_VALUE_STRING ? "" : values[0].strValue;
    const bool isOneText = values.size() == 2 && values[1].type == DBUS_VALUE_STRING;
    if (function == "GetPolicyInfo" && isOneText) {
        return nullptr;
    }
    if (function == "Kick" && isOneText) {
        return Reply(pCall, Status(1));
    }
    Complain(peer, TYComplaint::FUNCTION, ": \"" + function.substr(0, 32) + "\"");
    return Error(pCall, DBUS_ERROR_INVALID_ARGS, "unknown function, or wrong arguments");
}

TYMessagePtr CTYServiceHandler::Dispatch(const TYWaitingCall& call) {
    return Reply(call.message.get(), call.shape.isBatch ? SendData(call) : GetPolicyInfo(call));
}

CTYServiceHandler::Values CTYServiceHandler::SendData(const TYWaitingCall& call) {
    const TYComplain complain = [&](TYComplaint complaint, const std::string& detail) {
        const CTYLock lock(m_Mutex);
        Complain(*call.peer, complaint, detail);
    };
    TYBatch batch;
    if (!ReadBatch(call.message.get(), complain, batch)) {
        const CTYLock lock(m_Mutex);
        CountLoss(TYLossReason::BAD_BATCH, call.shape);
        return Status(0);
    }
    if (m_bDiscard || batch.records.empty()) {
        return StatusAnd(1);
    }
    batch.sender = call.sender;
    batch.arrival = WallClockNow();
    return StatusAnd(Store(batch, complain) ? 1 : 0);
}

/// @return whether some of the records were stored, and the others refused by policies
bool CTYServiceHandler::Store(TYBatch& batch, const TYComplain& complain) {
    const std::optional<std::size_t> refused = m_Filter.Apply(batch);
    if (!refused) {
        for (const TYMediaData& record : batch.records) {
            m_Store.CountLoss(TYLossReason::FULL, TextsOf(record).serviceID, 1);
        }
        return false;
    }
    if (*refused > 0) {
        complain(TYComplaint::REFUSED, "");
    }
    // The keeper counts what it cannot store.
    return !batch.records.empty() && m_Store.Add(batch);
}

CTYServiceHandler::Values CTYServiceHandler::GetPolicyInfo(const TYWaitingCall& call) {
    const Values values = MessageToList(call.message.get());
    const std::optional<TYPolicy> policy = m_Store.Policy(values.at(1).strValue);
    // If the store cannot be read, status 0 makes the library stop collecting.
    if (!policy) {
        return Status(0);
    }
    return StatusAnd(policy->Admits(call.sender.uid) ? policy->value : 0);
}

void CTYServiceHandler::CountLoss(TYLossReason reason, const TYCallShape& shape) {
    if (shape.isBatch && shape.records > 0) {
        m_Losses.Count(reason, shape.application, static_cast<std::int64_t>(shape.records));
    }
}

void CTYServiceHandler::Answer(DBusMessage* pCall, TYMessagePtr pReply) const {
    if (pReply != nullptr && dbus_message_get_no_reply(pCall) == 0) {
        m_Send(std::move(pReply));
    }
}

TYMessagePtr CTYServiceHandler::Reply(DBusMessage* pCall, Values values) {
    TYMessagePtr reply(dbus_message_new_method_return(pCall));
    if (reply != nullptr) {
        ListToMessage(reply.get(), 0, values);
    }
    return reply;
}

TYMessagePtr CTYServiceHandler::Error(DBusMessage* pCall, const char* pName,
                                      const std::string& text) {
    return TYMessagePtr(dbus_message_new_error(pCall, pName, text.c_str()));
}

void CTYServiceHandler::Complain(CTYPeers::Peer& peer, TYComplaint complaint,
                                 const std::string& detail) {
    m_Peers.Complain(peer, complaint, CTYPeers::Clock::now(), detail);
}
