// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYServiceHandler.h"

#include "TYBusNames.h"
#include "TYEventCodes.h"
#include "TYLog.h"
#include "TYRecordImage.h"
#include "TYWallClock.h"

#include <tallyra/TYTypes.h>

#include <algorithm>
#include <cstring>
#include <string_view>
#include <utility>

#define TY_LOG_TAG "TALLYRA_SERVICE"

namespace {

bool IsOrMissing(const char* pText, const char* pExpected) {
    return pText == nullptr || std::strcmp(pText, pExpected) == 0;
}

bool IsByteArray(DBusMessageIter* pIterator) {
    return dbus_message_iter_get_arg_type(pIterator) == DBUS_TYPE_ARRAY &&
           dbus_message_iter_get_element_type(pIterator) == DBUS_TYPE_BYTE;
}

// Advances the iterator to the payload of the value.
bool HasPayloadOfItsType(DBusMessageIter* pIterator) {
    dbus_int32_t type = DBUS_VALUE_NONE;
    for (int i = 0; i < 2; ++i) {
        if (dbus_message_iter_get_arg_type(pIterator) != DBUS_TYPE_INT32) {
            return false;
        }
        dbus_message_iter_get_basic(pIterator, &type);
        dbus_message_iter_next(pIterator);
    }
    switch (type) {
        case DBUS_VALUE_INT:
            return dbus_message_iter_get_arg_type(pIterator) == DBUS_TYPE_INT32;
        case DBUS_VALUE_STRING:
            return dbus_message_iter_get_arg_type(pIterator) == DBUS_TYPE_STRING;
        case DBUS_VALUE_BINARY:
            return IsByteArray(pIterator);
        default:
            return false;
    }
}

std::size_t CountImages(DBusMessage* pCall) {
    const std::string_view signature = dbus_message_get_signature(pCall);
    return static_cast<std::size_t>(std::count(signature.begin(), signature.end(), 'a'));
}

std::vector<CDbusValue> Status(int status) {
    return {CDbusValue::OfInt(status)};
}

std::vector<CDbusValue> Answer(int value) {
    return {CDbusValue::OfInt(1), CDbusValue::OfInt(value)};
}

}  // namespace

bool CTYServiceHandler::IsWellFormed(DBusMessage* pMessage) {
    DBusMessageIter iterator;
    dbus_message_iter_init(pMessage, &iterator);
    while (dbus_message_iter_get_arg_type(&iterator) != DBUS_TYPE_INVALID) {
        if (!HasPayloadOfItsType(&iterator)) {
            return false;
        }
        dbus_message_iter_next(&iterator);
    }
    return true;
}

TYMessagePtr CTYServiceHandler::Handle(DBusMessage* pMessage) {
    if (dbus_message_get_type(pMessage) != DBUS_MESSAGE_TYPE_METHOD_CALL) {
        return nullptr;
    }
    TYMessagePtr reply = Call(pMessage);
    return dbus_message_get_no_reply(pMessage) != 0 ? nullptr : std::move(reply);
}

TYMessagePtr CTYServiceHandler::Call(DBusMessage* pCall) {
    const char* pSender = dbus_message_get_sender(pCall);
    CTYPeers::Peer& peer = m_Peers.Get(pSender != nullptr ? pSender : "", CTYPeers::Clock::now());
    if (TYMessagePtr refusal = Refuse(pCall, peer)) {
        return refusal;
    }
    if (!IsWithinBudget(pCall, peer)) {
        Complain(peer, TYComplaint::FLOOD, "");
        return Reply(pCall, Status(0));
    }
    return Dispatch(pCall, peer);
}

/// @return the D-Bus error for a call of an unknown object, interface or method; null otherwise
TYMessagePtr CTYServiceHandler::Refuse(DBusMessage* pCall, CTYPeers::Peer& peer) {
    TYMessagePtr refusal;
    if (!IsOrMissing(dbus_message_get_path(pCall), TYBusNames::kPath)) {
        refusal = Error(pCall, DBUS_ERROR_UNKNOWN_OBJECT, "unknown object");
    } else if (!IsOrMissing(dbus_message_get_interface(pCall), TYBusNames::kInterface)) {
        refusal = Error(pCall, DBUS_ERROR_UNKNOWN_INTERFACE, "unknown interface");
    } else if (!IsOrMissing(dbus_message_get_member(pCall), TYBusNames::kMethod)) {
        refusal = Error(pCall, DBUS_ERROR_UNKNOWN_METHOD,
                        "unknown method; the only method is TYCallFunction");
    } else {
        return nullptr;
    }
    const char* pMember = dbus_message_get_member(pCall);
    Complain(peer, TYComplaint::FOREIGN, std::string(": ") + (pMember != nullptr ? pMember : ""));
    return refusal;
}

bool CTYServiceHandler::IsWithinBudget(DBusMessage* pCall, CTYPeers::Peer& peer) {
    const std::size_t images = std::max<std::size_t>(CountImages(pCall), 1);
    return m_Peers.Spend(peer, static_cast<double>(images), CTYPeers::Clock::now());
}

TYMessagePtr CTYServiceHandler::Dispatch(DBusMessage* pCall, CTYPeers::Peer& peer) {
    if (!IsWellFormed(pCall)) {
        Complain(peer, TYComplaint::MALFORMED, "");
        return Error(pCall, DBUS_ERROR_INVALID_ARGS, "the body is not a sequence of values");
    }
    const Values values = MessageToList(pCall);
    const std::string function =
        values.empty() || values[0].type != DBUS_VALUE_STRING ? "" : values[0].strValue;
    const bool isOneText = values.size() == 2 && values[1].type == DBUS_VALUE_STRING;
    if (function == "SendData") {
        return Reply(pCall, SendData(peer, values));
    }
    if (function == "GetPolicyInfo" && isOneText) {
        return Reply(pCall, GetPolicyInfo(values[1].strValue));
    }
    if (function == "Kick" && isOneText) {
        return Reply(pCall, Status(1));
    }
    Complain(peer, TYComplaint::FUNCTION, ": \"" + function.substr(0, 32) + "\"");
    return Error(pCall, DBUS_ERROR_INVALID_ARGS, "unknown function, or wrong arguments");
}

CTYServiceHandler::Values CTYServiceHandler::SendData(CTYPeers::Peer& peer,
                                                      const Values& arguments) {
    TYBatch batch;
    if (!ToBatch(peer, arguments, batch)) {
        return Status(0);
    }
    if (m_bDiscard || batch.records.empty()) {
        return Answer(1);
    }
    return Answer(m_Store.Add(batch) ? 1 : 0);
}

CTYServiceHandler::Values CTYServiceHandler::GetPolicyInfo(const std::string& application) {
    const std::optional<TYPolicy> policy = m_Store.Policy(application);
    // If the store cannot be read, status 0 makes the library stop collecting.
    return policy ? Answer(policy->value) : Status(0);
}

// A batch is images followed by URLs in the same order. One image of the wrong size makes the
// service refuse the whole batch. Missing URLs become null; surplus ones are dropped.
bool CTYServiceHandler::ToBatch(CTYPeers::Peer& peer, const Values& arguments, TYBatch& batch) {
    std::vector<std::optional<std::string>> urls;
    std::size_t bytes = 0;
    batch.records.reserve(arguments.size());
    for (auto value = arguments.begin() + 1; value != arguments.end(); ++value) {
        bytes += value->nBufferSize + value->strValue.size();
        if (value->type == DBUS_VALUE_STRING) {
            urls.emplace_back(value->strValue);
            continue;
        }
        if (value->type != DBUS_VALUE_BINARY || !urls.empty()) {
            Complain(peer, TYComplaint::ORDER, "");
            return false;
        }
        if (!TakeRecord(peer, *value, batch)) {
            return false;
        }
    }
    if (bytes > kMaxBatchBytes) {
        Complain(peer, TYComplaint::BATCH_TOO_BIG, ": " + std::to_string(bytes) + " bytes");
        return false;
    }
    if (urls.size() != batch.records.size()) {
        Complain(peer, TYComplaint::URL_COUNT, "");
    }
    urls.resize(batch.records.size());
    batch.urls = std::move(urls);
    batch.sender = peer.identity;
    batch.arrival = WallClockNow();
    return true;
}

bool CTYServiceHandler::TakeRecord(CTYPeers::Peer& peer, const CDbusValue& value, TYBatch& batch) {
    const auto record = RecordFromImage({value.pBuffer.get(), value.nBufferSize});
    if (!record) {
        Complain(peer, TYComplaint::IMAGE_SIZE,
                 ": " + std::to_string(value.nBufferSize) + " bytes");
        return false;
    }
    LogAnomalies(peer, *record);
    batch.records.push_back(*record);
    return true;
}

// Logs what is unusual in a record. The service stores the record in any case.
void CTYServiceHandler::LogAnomalies(CTYPeers::Peer& peer, const TYMediaData& record) {
    if (!HasTerminatedTexts(record)) {
        Complain(peer, TYComplaint::NO_END, "");
    }
    if (!NameOfCode(record.event)) {
        Complain(peer, TYComplaint::UNKNOWN_CODE, ": " + std::to_string(record.event));
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
