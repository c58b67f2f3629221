// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The messages of the fake bus: arguments into messages of libdbus, and back.

#include "doubles/FakeBus.h"

#include <cstdio>
#include <cstdlib>

namespace {

void Require(bool holds, const char* rule) {
    if (!holds) {
        std::fprintf(stderr, "fake bus: not so: %s\n", rule);
        std::abort();
    }
}

std::string BytesOf(DBusMessage* pMessage) {
    char* pBytes = nullptr;
    int length = 0;
    Require(dbus_message_marshal(pMessage, &pBytes, &length) != FALSE, "a message has bytes");
    std::string bytes(pBytes, static_cast<std::size_t>(length));
    dbus_free(pBytes);
    return bytes;
}

}  // namespace

// libdbus reads a message as strictly as the bus does, which disconnects a client that sends
// another.
CFakeBus::Call CFakeBus::ReadCall(DBusMessage* pMessage, int timeoutMs) {
    std::string bytes = BytesOf(pMessage);
    const TYMessagePtr read(
        dbus_message_demarshal(bytes.data(), static_cast<int>(bytes.size()), nullptr));
    Require(read != nullptr, "the bus takes the message");
    return {dbus_message_get_destination(read.get()),
            dbus_message_get_path(read.get()),
            dbus_message_get_interface(read.get()),
            dbus_message_get_member(read.get()),
            dbus_message_get_signature(read.get()),
            Read(read.get()),
            timeoutMs,
            std::move(bytes),
            {}};
}

DBusMessage* CFakeBus::MakeMessage(const Arguments& body) {
    DBusMessage* pMessage = dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN);
    Append(pMessage, body);
    return pMessage;
}

void CFakeBus::Append(DBusMessage* pMessage, const Arguments& body) {
    for (const Argument& argument : body) {
        if (const auto* pInt = std::get_if<std::int32_t>(&argument)) {
            dbus_message_append_args(pMessage, DBUS_TYPE_INT32, pInt, DBUS_TYPE_INVALID);
        } else if (const auto* pText = std::get_if<std::string>(&argument)) {
            const char* text = pText->c_str();
            dbus_message_append_args(pMessage, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
        } else {
            const auto& bytes = std::get<std::vector<char>>(argument);
            const char* data = bytes.data();
            dbus_message_append_args(pMessage, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &data,
                                     static_cast<int>(bytes.size()), DBUS_TYPE_INVALID);
        }
    }
}

CFakeBus::Arguments CFakeBus::Read(DBusMessage* pMessage) {
    Arguments arguments;
    DBusMessageIter iterator;
    dbus_message_iter_init(pMessage, &iterator);
    for (; dbus_message_iter_get_arg_type(&iterator) != DBUS_TYPE_INVALID;
         dbus_message_iter_next(&iterator)) {
        const int type = dbus_message_iter_get_arg_type(&iterator);
        if (type == DBUS_TYPE_INT32) {
            std::int32_t value = 0;
            dbus_message_iter_get_basic(&iterator, &value);
            arguments.emplace_back(value);
        } else if (type == DBUS_TYPE_STRING) {
            const char* text = nullptr;
            dbus_message_iter_get_basic(&iterator, &text);
            arguments.emplace_back(std::string(text));
        } else {
            DBusMessageIter array;
            const char* data = nullptr;
            int count = 0;
            dbus_message_iter_recurse(&iterator, &array);
            dbus_message_iter_get_fixed_array(&array, &data, &count);
            arguments.emplace_back(std::vector<char>(data, data + count));
        }
    }
    return arguments;
}

CFakeBus::Reply CFakeBus::Status(std::int32_t status, std::int32_t value) {
    return {{0, 0, status, 1, 0, value}, ""};
}

TYMessagePtr CFakeBus::MakeReply(const Reply& reply) {
    if (reply.error.empty()) {
        return TYMessagePtr(MakeMessage(reply.body));
    }
    TYMessagePtr message(dbus_message_new(DBUS_MESSAGE_TYPE_ERROR));
    dbus_message_set_error_name(message.get(), reply.pErrorName);
    Append(message.get(), {reply.error});
    return message;
}

CFakeBus::Reply CFakeBus::Reply::After(std::chrono::milliseconds time) {
    Reply reply = Status(1, 1);
    reply.after = time;
    return reply;
}
