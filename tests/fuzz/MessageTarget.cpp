// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Target "message": the service's handler survives any message and replies by the rules.

#include "ServiceCall.h"
#include "TYDatabase.h"
#include "TYServiceHandler.h"
#include "Target.h"

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

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
    std::vector<TYMessagePtr> replies;
    CTYServiceHandler handler{keeper, peers,
                              [this](TYMessagePtr reply) { replies.push_back(std::move(reply)); }};
    CTYMessageReader reader{CTYServiceHandler::kMaxMessage};
    int inputs = 0;

    // As from the bus, in pieces.
    void Receive(std::string_view rest) {
        while (!rest.empty()) {
            const std::span<char> space = reader.Space();
            const std::size_t count =
                rest.copy(space.data(), std::min<std::size_t>(777, space.size()));
            reader.Take(count);
            rest.remove_prefix(count);
            while (const std::optional<TYArrival> arrival = reader.Next()) {
                handler.Receive(*arrival);
            }
        }
        Require(!reader.IsBroken(), "a message from the bus can be read");
    }

    TYMessagePtr Answer(std::string_view message) {
        replies.clear();
        Receive(message);
        while (handler.Serve()) {
        }
        Require(replies.size() <= 1, "a call gets at most one reply");
        return replies.empty() ? nullptr : std::move(replies.front());
    }
};

Service& TheService() {
    static std::unique_ptr<Service> service;
    if (service == nullptr || ++service->inputs > kInputsForAStore) {
        service = std::make_unique<Service>();
    }
    return *service;
}

// The bytes on the wire; none of a message that no bus passes on, as one without a path.
std::string Marshalled(DBusMessage* pMessage) {
    char* pBytes = nullptr;
    int size = 0;
    Require(dbus_message_marshal(pMessage, &pBytes, &size) != 0, "a message can be marshalled");
    const std::string bytes(pBytes, static_cast<std::size_t>(size));
    dbus_free(pBytes);
    const TYMessagePtr valid(dbus_message_demarshal(bytes.data(), size, nullptr));
    return valid != nullptr ? bytes : "";
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
    const TYMessagePtr message = MakeServiceCall(bytes);
    const std::string wire = message != nullptr ? Marshalled(message.get()) : "";
    if (wire.empty()) {
        return 0;
    }
    const bool wantsReply = dbus_message_get_type(message.get()) == DBUS_MESSAGE_TYPE_METHOD_CALL &&
                            dbus_message_get_no_reply(message.get()) == 0;
    const TYMessagePtr reply = TheService().Answer(wire);
    Require((reply != nullptr) == wantsReply, "exactly the calls that expect a reply get one");
    if (reply != nullptr) {
        CheckReply(reply.get());
    }
    return 0;
}
