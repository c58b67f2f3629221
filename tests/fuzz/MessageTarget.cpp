// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Target "message": the service's handler survives any message and replies by the rules.

#include "MessageBuilder.h"
#include "TYBusNames.h"
#include "TYDatabase.h"
#include "TYServiceHandler.h"
#include "Target.h"

#include <algorithm>
#include <array>
#include <memory>

namespace {

constexpr std::size_t kImageSize = 4800;
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

/// Builds a call.
class CCallBuilder : public CMessageBuilder {
  public:
    explicit CCallBuilder(CBytes& bytes)
        : CMessageBuilder(bytes, TYMessagePtr(dbus_message_new_method_call(
                                     TYBusNames::kService, TYBusNames::kPath,
                                     TYBusNames::kInterface, TYBusNames::kMethod))) {
        dbus_message_set_serial(Message(), 1);
        dbus_message_set_sender(Message(), ":1.1");
        AddText(PickFunction());
    }

  private:
    std::string PickFunction() {
        constexpr std::array kFunctions = {"SendData", "GetPolicyInfo", "Kick", ""};
        const std::uint8_t choice = Bytes().Byte();
        return choice < kFunctions.size() ? kFunctions.at(choice) : Bytes().Text();
    }

    void Step() override {
        switch (Bytes().Byte() % 12) {
            case 0:
            case 1:
                return AddImage();
            case 2:
                return AddText(Bytes().Text());
            case 3:
                AddHead(0);
                return AddInt(Bytes().Int());
            case 4:
                AddHead(2);
                return AddBytes(Bytes().Some());
            case 5:
                return AddInt(Bytes().Int());
            case 6:
                return AddString(Bytes().Text());
            case 7:
                return AddBytes(Bytes().Some());
            case 8:
                return AddOther();
            case 9:
                return dbus_message_set_no_reply(Message(), Bytes().Byte() & 1);
            case 10:
                return Readdress();
            default:
                return AddMany();
        }
    }

    // Adds an image of the right size with some of its bytes set.
    void AddImage() {
        std::string image(kImageSize, static_cast<char>(Bytes().Byte()));
        const auto offset = static_cast<std::size_t>(Bytes().Int()) % kImageSize;
        const std::string_view bytes = Bytes().Some();
        const std::size_t count = std::min(bytes.size(), kImageSize - offset);
        image.replace(offset, count, bytes.substr(0, count));
        AddHead(2);
        AddBytes(image);
    }

    // Adds images that differ in few bytes.
    void AddMany() {
        std::string image(kImageSize, '\0');
        const int count = Bytes().Byte() % 32;
        for (int i = 0; i < count && HasRoom(); ++i) {
            image[static_cast<std::size_t>(Bytes().Int()) % kImageSize] =
                static_cast<char>(Bytes().Byte());
            AddHead(2);
            AddBytes(image);
        }
    }

    void AddOther() {
        DBusMessageIter container;
        const double number = Bytes().Int();
        const dbus_uint32_t natural = static_cast<dbus_uint32_t>(Bytes().Int());
        switch (Bytes().Byte() % 4) {
            case 0:
                return AddBasic(DBUS_TYPE_DOUBLE, number);
            case 1:
                return AddBasic(DBUS_TYPE_UINT32, natural);
            case 2:
                dbus_message_iter_open_container(Iterator(), DBUS_TYPE_ARRAY, "u", &container);
                break;
            default:
                dbus_message_iter_open_container(Iterator(), DBUS_TYPE_VARIANT, "u", &container);
        }
        dbus_message_iter_append_basic(&container, DBUS_TYPE_UINT32, &natural);
        dbus_message_iter_close_container(Iterator(), &container);
    }

    void Readdress() {
        const std::uint8_t what = Bytes().Byte();
        DBusMessage* pMessage = Message();
        dbus_message_set_path(pMessage, (what & 1) != 0 ? nullptr : TYBusNames::kPath);
        dbus_message_set_interface(pMessage, (what & 2) != 0 ? "org.example.Other" : nullptr);
        dbus_message_set_member(pMessage, (what & 4) != 0 ? "Other" : TYBusNames::kMethod);
        dbus_message_set_sender(pMessage, (what & 8) != 0 ? ":1.2" : nullptr);
    }
};

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
    const TYMessagePtr message = CMessageBuilder::Make<CCallBuilder>(bytes);
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
