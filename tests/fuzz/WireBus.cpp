// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "WireBus.h"

#include "TYMessagePtr.h"
#include "Target.h"

#include <cstring>
#include <string_view>

namespace {

constexpr std::size_t kMostRecords = 36;

std::string BytesOf(DBusMessage* pMessage) {
    const TYMessagePtr copy(dbus_message_copy(pMessage));
    dbus_message_set_serial(copy.get(), 1);
    char* pBytes = nullptr;
    int count = 0;
    Require(dbus_message_marshal(copy.get(), &pBytes, &count) != FALSE, "a message has bytes");
    std::string bytes(pBytes, static_cast<std::size_t>(count));
    dbus_free(pBytes);
    return bytes;
}

// libdbus reads a message as strictly as the bus does, which cuts off whoever sends another.
TYMessagePtr MessageOf(const std::string& bytes) {
    TYMessagePtr message(
        dbus_message_demarshal(bytes.data(), static_cast<int>(bytes.size()), nullptr));
    Require(message != nullptr, "the bus would take the message");
    return message;
}

void CheckAddress(DBusMessage* pMessage) {
    Require(
        std::strcmp(dbus_message_get_destination(pMessage), "org.veltra.tv.tallyra.service") == 0 &&
            std::strcmp(dbus_message_get_path(pMessage), "/org/veltra/tv/tallyra/service") == 0 &&
            dbus_message_is_method_call(pMessage, "org.veltra.tv.tallyra.client",
                                        "TYCallFunction") != FALSE,
        "every call goes to the service's method");
}

/// @return the payloads of a body's triples
CFakeBus::Arguments Payloads(const CFakeBus::Arguments& body) {
    CFakeBus::Arguments payloads;
    Require(body.size() % 3 == 0, "a body is made of triples");
    for (std::size_t i = 0; i < body.size(); i += 3) {
        const auto* pIndex = std::get_if<std::int32_t>(&body[i]);
        const auto* pType = std::get_if<std::int32_t>(&body[i + 1]);
        Require(pIndex != nullptr && *pIndex == static_cast<std::int32_t>(i / 3),
                "indices run through");
        Require(pType != nullptr && *pType == static_cast<std::int32_t>(body[i + 2].index()),
                "a type is that of its payload");
        payloads.push_back(body[i + 2]);
    }
    return payloads;
}

void AppendRecords(const CFakeBus::Arguments& payloads, std::vector<model::Record>& records) {
    const std::size_t count = (payloads.size() - 1) / 2;
    Require(payloads.size() % 2 == 1 && count > 0 && count <= kMostRecords,
            "a batch has some records, and a URL for each");
    for (std::size_t i = 1; i <= count; ++i) {
        const auto* pImage = std::get_if<std::vector<char>>(&payloads[i]);
        const auto* pUrl = std::get_if<std::string>(&payloads[i + count]);
        Require(pImage != nullptr && pUrl != nullptr, "URLs stand behind the images");
        std::string problem;
        records.push_back(model::FromImage({pImage->data(), pImage->size()}, *pUrl, &problem));
        Require(problem.empty(), problem.c_str());
    }
}

}  // namespace

DBusMessage* CWireBus::SendWithReplyAndBlock(DBusConnection* pConnection, DBusMessage* pMessage,
                                             int timeoutMs, DBusError* pError) {
    {
        const std::lock_guard lock(m_Mutex);
        m_Messages.push_back(BytesOf(pMessage));
    }
    DBusMessage* pReply = CFakeBus::SendWithReplyAndBlock(pConnection, pMessage, timeoutMs, pError);
    NoteAnswer(pMessage, pReply);
    return pReply;
}

// A batch is accepted when the status and the value behind it are other than zero.
void CWireBus::NoteAnswer(DBusMessage* pMessage, DBusMessage* pReply) {
    const Arguments body = Read(pMessage);
    if (std::get<std::string>(body.at(2)) != "SendData") {
        return;
    }
    const std::size_t count = (body.size() / 3 - 1) / 2;
    const Arguments answer = pReply == nullptr ? Arguments{} : Read(pReply);
    const bool accepted = answer.size() == 6 && answer[2] != Argument(std::int32_t{0}) &&
                          answer[5] != Argument(std::int32_t{0});
    const std::lock_guard lock(m_Mutex);
    m_nRecords += count;
    if (!accepted && count == kMostRecords) {
        m_Gaps.insert(m_nRecords);
    }
}

bool CWireBus::MayMissBehind(std::size_t count) {
    const std::lock_guard lock(m_Mutex);
    return m_Gaps.count(count) != 0;
}

std::vector<CFakeBus::Arguments> CWireBus::Bodies(const std::string& function) {
    const std::lock_guard lock(m_Mutex);
    std::vector<Arguments> bodies;
    for (const std::string& bytes : m_Messages) {
        const TYMessagePtr message = MessageOf(bytes);
        CheckAddress(message.get());
        const Arguments payloads = Payloads(Read(message.get()));
        Require(!payloads.empty() && std::holds_alternative<std::string>(payloads.front()),
                "a call names its function");
        if (std::get<std::string>(payloads.front()) == function) {
            bodies.push_back(payloads);
        }
    }
    return bodies;
}

std::vector<model::Record> CWireBus::Records() {
    std::vector<model::Record> records;
    for (const Arguments& payloads : Bodies("SendData")) {
        AppendRecords(payloads, records);
    }
    return records;
}

std::vector<std::string> CWireBus::PolicyNames() {
    std::vector<std::string> names;
    for (const Arguments& payloads : Bodies("GetPolicyInfo")) {
        Require(payloads.size() == 2 && std::holds_alternative<std::string>(payloads[1]),
                "a policy is asked for with a name");
        names.push_back(std::get<std::string>(payloads[1]));
    }
    return names;
}
