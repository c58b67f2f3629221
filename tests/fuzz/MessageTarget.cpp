// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Target "message": the service's handler survives any message and replies by the rules.

#include "MessageBuilder.h"
#include "TYBusNames.h"
#include "TYDatabase.h"
#include "TYServiceHandler.h"
#include "Target.h"

#include <array>
#include <memory>

namespace {

// After that many inputs the store is replaced, so that a finding depends on few earlier inputs.
constexpr int kInputsForAStore = 256;
constexpr double kRate = 100'000;

/// A service without a bus.
struct Service {
    CTYStoreKeeper keeper{":memory:", {}};
    CTYPeers peers{[](const std::string& name) {
                       return TYPeerIdentity{"bus", name, 1000, std::nullopt};
                   },
                   kRate};
    CTYServiceHandler handler{keeper, peers};
    int inputs = 0;
};

Service& TheService() {
    static std::unique_ptr<Service> service;
    if (service == nullptr || ++service->inputs > kInputsForAStore) {
        service = std::make_unique<Service>();
    }
    return *service;
}

using Step = CMessageBuilder::Step;
// The corpus counts on this order.
constexpr std::array kSteps = {Step::IMAGE,    Step::IMAGE,    Step::TEXT,      Step::NUMBER,
                               Step::BYTES,    Step::INT,      Step::STRING,    Step::RAW_BYTES,
                               Step::OTHER,    Step::NO_REPLY, Step::READDRESS, Step::IMAGES,
                               Step::CONTAINER};

TYMessagePtr MakeCall(CBytes& bytes) {
    TYMessagePtr call(dbus_message_new_method_call(TYBusNames::kService, TYBusNames::kPath,
                                                   TYBusNames::kInterface, TYBusNames::kMethod));
    dbus_message_set_serial(call.get(), 1);
    dbus_message_set_sender(call.get(), ":1.1");
    return CMessageBuilder::Make(bytes, std::move(call), kSteps, true);
}

// A reply is a D-Bus error, or numbers that begin with a status of 0 or 1.
void CheckReply(DBusMessage* pReply) {
    if (dbus_message_get_type(pReply) == DBUS_MESSAGE_TYPE_ERROR) {
        return;
    }
    Require(dbus_message_get_type(pReply) == DBUS_MESSAGE_TYPE_METHOD_RETURN,
            "a reply is a return");
    dbus_int32_t index = -1;
    dbus_int32_t type = -1;
    dbus_int32_t status = -1;
    Require(dbus_message_get_args(pReply, nullptr, DBUS_TYPE_INT32, &index, DBUS_TYPE_INT32, &type,
                                  DBUS_TYPE_INT32, &status, DBUS_TYPE_INVALID) != 0,
            "a reply begins with a number");
    Require(index == 0 && type == 0 && (status == 0 || status == 1),
            "the first number is the status");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t size) {
    CBytes bytes(pData, size);
    const TYMessagePtr message = MakeCall(bytes);
    if (message == nullptr) {
        return 0;
    }
    const TYMessagePtr reply = TheService().handler.Handle(message.get());
    const bool wantsReply = dbus_message_get_type(message.get()) == DBUS_MESSAGE_TYPE_METHOD_CALL &&
                            dbus_message_get_no_reply(message.get()) == 0;
    Require((reply != nullptr) == wantsReply, "exactly the calls that expect a reply get one");
    if (reply != nullptr) {
        CheckReply(reply.get());
    }
    return 0;
}
