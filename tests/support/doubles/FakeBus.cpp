// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "doubles/FakeBus.h"

#include <algorithm>

// The messages are libdbus's own.
bool CFakeBus::InitThreads() {
    Note("InitThreads");
    return dbus_threads_init_default() != FALSE;
}

DBusConnection* CFakeBus::GetPrivate(DBusError* pError) {
    Note("GetPrivate");
    if (!connectError.empty()) {
        dbus_set_error(pError, DBUS_ERROR_FAILED, "%s", connectError.c_str());
        return nullptr;
    }
    return connectNull ? nullptr : reinterpret_cast<DBusConnection*>(this);
}

bool CFakeBus::NameHasOwner(DBusConnection* /*pConnection*/, const char* /*pName*/) {
    Note("NameHasOwner");
    if (onLook) {
        onLook();
    }
    const std::lock_guard lock(m_Mutex);
    return m_bOwner;
}

DBusMessage* CFakeBus::NewMethodCall(const char* pDestination, const char* pPath,
                                     const char* pInterface, const char* pMember) {
    Note("NewMethodCall");
    return outOfMessages ? nullptr
                         : dbus_message_new_method_call(pDestination, pPath, pInterface, pMember);
}

DBusMessage* CFakeBus::SendWithReplyAndBlock(DBusConnection* /*pConnection*/, DBusMessage* pMessage,
                                             int timeoutMs, DBusError* pError) {
    Note("SendWithReplyAndBlock");
    const Call call{dbus_message_get_destination(pMessage),
                    dbus_message_get_path(pMessage),
                    dbus_message_get_interface(pMessage),
                    dbus_message_get_member(pMessage),
                    dbus_message_get_signature(pMessage),
                    Read(pMessage),
                    timeoutMs};
    Note(call.Function());
    if (onCall) {
        onCall(call);
    }
    const std::lock_guard lock(m_Mutex);
    m_Calls.push_back(call);
    m_Called.notify_all();
    const Reply& reply = replies[call.Function()];
    if (!reply.error.empty()) {
        dbus_set_error(pError, reply.pErrorName, "%s", reply.error.c_str());
        return nullptr;
    }
    return MakeMessage(reply.body);
}

void CFakeBus::Close(DBusConnection* /*pConnection*/) {
    Note("Close");
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

void CFakeBus::SetOwner(bool owner) {
    const std::lock_guard lock(m_Mutex);
    m_bOwner = owner;
}

void CFakeBus::SetReply(const std::string& function, Reply reply) {
    const std::lock_guard lock(m_Mutex);
    replies[function] = std::move(reply);
}

std::vector<CFakeBus::Call> CFakeBus::Calls() {
    const std::lock_guard lock(m_Mutex);
    return m_Calls;
}

std::vector<CFakeBus::Call> CFakeBus::Calls(const std::string& function) {
    std::vector<Call> calls = Calls();
    std::erase_if(calls, [&](const Call& call) { return call.Function() != function; });
    return calls;
}

bool CFakeBus::WaitForCalls(const std::string& function, std::size_t count,
                            std::chrono::milliseconds time) {
    std::unique_lock lock(m_Mutex);
    return m_Called.wait_for(lock, time, [&] { return CountCalls(function) >= count; });
}

std::size_t CFakeBus::CountCalls(const std::string& function) const {
    return static_cast<std::size_t>(
        std::count_if(m_Calls.begin(), m_Calls.end(),
                      [&](const Call& call) { return call.Function() == function; }));
}

std::size_t CFakeBus::Count(const std::string& operation) {
    const auto journal = Journal();
    return static_cast<std::size_t>(std::count(journal.begin(), journal.end(), operation));
}

std::vector<std::string> CFakeBus::Journal() {
    const std::lock_guard lock(m_Mutex);
    return m_Journal;
}

void CFakeBus::Note(const std::string& operation) {
    const std::lock_guard lock(m_Mutex);
    m_Journal.push_back(operation);
}
