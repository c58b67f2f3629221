// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "HandlerFixture.h"

namespace {

// A reply is a run of triples whose payloads are numbers.
std::string NumbersOf(DBusMessage* pReply) {
    DBusMessageIter iterator;
    dbus_message_iter_init(pReply, &iterator);
    std::string numbers;
    for (int i = 0; dbus_message_iter_get_arg_type(&iterator) == DBUS_TYPE_INT32; ++i) {
        dbus_int32_t number = 0;
        dbus_message_iter_get_basic(&iterator, &number);
        const int due[] = {i / 3, 0, number};
        EXPECT_EQ(number, due[i % 3]) << "argument " << i;
        numbers += i % 3 == 2 ? (numbers.empty() ? "" : " ") + std::to_string(number) : "";
        dbus_message_iter_next(&iterator);
    }
    EXPECT_EQ(dbus_message_iter_get_arg_type(&iterator), DBUS_TYPE_INVALID);
    return numbers;
}

}  // namespace

CCall::CCall(const char* pPath, const char* pInterface, const char* pMember)
    : m_pMessage(dbus_message_new_method_call("org.veltra.tv.tallyra.service", pPath, pInterface,
                                              pMember)) {
    dbus_message_set_serial(Get(), 1);
    From(":1.1");
}

CCall CCall::Of(const char* pFunction) {
    CCall call;
    call.TextValue(pFunction);
    return call;
}

CCall& CCall::Int(int value) {
    const dbus_int32_t argument = value;
    dbus_message_append_args(Get(), DBUS_TYPE_INT32, &argument, DBUS_TYPE_INVALID);
    return *this;
}

CCall& CCall::Text(const std::string& text) {
    const char* pText = text.c_str();
    dbus_message_append_args(Get(), DBUS_TYPE_STRING, &pText, DBUS_TYPE_INVALID);
    return *this;
}

CCall& CCall::Bytes(std::string_view bytes) {
    const char* pBytes = bytes.data();
    dbus_message_append_args(Get(), DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &pBytes,
                             static_cast<int>(bytes.size()), DBUS_TYPE_INVALID);
    return *this;
}

CCall& CCall::IntsArray() {
    const dbus_int32_t numbers[] = {1, 2, 3};
    const dbus_int32_t* pNumbers = numbers;
    dbus_message_append_args(Get(), DBUS_TYPE_ARRAY, DBUS_TYPE_INT32, &pNumbers, 3,
                             DBUS_TYPE_INVALID);
    return *this;
}

CCall& CCall::Record(const TYMediaData& record) {
    return Image({reinterpret_cast<const char*>(&record), sizeof(record)});
}

CCall& CCall::From(const char* pSender) {
    dbus_message_set_sender(Get(), pSender);
    return *this;
}

CCall& CCall::WithoutReply() {
    dbus_message_set_no_reply(Get(), 1);
    return *this;
}

std::string CHandlerTest::Answer(CTYServiceHandler& handler, const CCall& call) {
    const auto reply = handler.Handle(call.Get());
    if (reply == nullptr) {
        return "nothing";
    }
    EXPECT_EQ(dbus_message_get_reply_serial(reply.get()), 1U);
    return dbus_message_get_type(reply.get()) == DBUS_MESSAGE_TYPE_ERROR
               ? dbus_message_get_error_name(reply.get())
               : NumbersOf(reply.get());
}
