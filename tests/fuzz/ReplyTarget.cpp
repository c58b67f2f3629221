// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Target "reply": the library reads any reply by the rules. The rules are implemented a second time
// here, on the message's arguments, and must yield the same values and results.

#include "MessageBuilder.h"
#include "TYDbusPort.h"
#include "TYServiceProxy.h"
#include "Target.h"
#include "doubles/FakeBus.h"
#include "doubles/PlatformDouble.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace {

using ByteList = std::vector<char>;
/// The value of a triple.
using Value = std::variant<std::int32_t, std::string, ByteList>;
/// An argument; empty for one of a type that the rules do not know.
using Argument = std::optional<Value>;

class CPort : public CDbusPort {
  public:
    bool IsReady() override { return true; }
};

/// A bus that answers every call with one message, and with an error when there is none.
class CAnsweringBus : public CFakeBus {
  public:
    explicit CAnsweringBus(DBusMessage* pReply) : m_pReply(pReply) {}

  private:
    TYMessagePtr Answer(const Call& /*call*/) override {
        return m_pReply == nullptr ? MakeReply({{}, "no message"})
                                   : TYMessagePtr(dbus_message_copy(m_pReply));
    }

    DBusMessage* const m_pReply;
};

using Step = CMessageBuilder::Step;
// The corpus counts on this order.
constexpr std::array kSteps = {Step::SMALL_NUMBER, Step::TEXT,     Step::BYTES,  Step::HEAD,
                               Step::STATUS,       Step::INT,      Step::STRING, Step::RAW_BYTES,
                               Step::OTHER,        Step::CONTAINER};

Argument ReadArgument(DBusMessageIter* pIterator) {
    const int type = dbus_message_iter_get_arg_type(pIterator);
    if (type == DBUS_TYPE_INT32 || type == DBUS_TYPE_UINT32 || type == DBUS_TYPE_BOOLEAN) {
        dbus_int32_t value = 0;
        dbus_message_iter_get_basic(pIterator, &value);
        return value;
    }
    if (type == DBUS_TYPE_STRING) {
        const char* pText = nullptr;
        dbus_message_iter_get_basic(pIterator, &pText);
        return std::string(pText);
    }
    if (type != DBUS_TYPE_ARRAY ||
        dbus_message_iter_get_element_type(pIterator) != DBUS_TYPE_BYTE) {
        return {};
    }
    const char* pBytes = nullptr;
    int count = 0;
    DBusMessageIter array;
    dbus_message_iter_recurse(pIterator, &array);
    dbus_message_iter_get_fixed_array(&array, &pBytes, &count);
    return ByteList(pBytes, pBytes + count);
}

std::vector<Argument> ReadArguments(DBusMessage* pMessage) {
    std::vector<Argument> arguments;
    DBusMessageIter iterator;
    dbus_message_iter_init(pMessage, &iterator);
    while (dbus_message_iter_get_arg_type(&iterator) != DBUS_TYPE_INVALID) {
        arguments.push_back(ReadArgument(&iterator));
        dbus_message_iter_next(&iterator);
    }
    return arguments;
}

/// @return the number of an argument; 0 for any other
std::int32_t NumberOf(const Argument& argument) {
    const auto* pNumber = argument ? std::get_if<std::int32_t>(&*argument) : nullptr;
    return pNumber == nullptr ? 0 : *pNumber;
}

// A triple is an index, which is ignored, a type and a payload; an incomplete triple is dropped. A
// number that is not 32 bits wide counts as 0. Where a string or bytes are expected and something
// else follows, that argument is the next triple's index; so it is after an unknown type.
std::vector<Value> ExpectedValues(const std::vector<Argument>& arguments) {
    const Value kEmpty[] = {0, std::string(), ByteList()};
    std::vector<Value> values;
    for (std::size_t next = 0; next + 2 < arguments.size();) {
        const auto type = static_cast<std::size_t>(NumberOf(arguments[next + 1]));
        const Argument& payload = arguments[next + 2];
        const bool fits = payload && payload->index() == type;
        if (type < std::size(kEmpty)) {
            values.push_back(fits ? *payload : kEmpty[type]);
        }
        next += fits || type == 0 ? 3 : 2;
    }
    return values;
}

bool IsSame(const CDbusValue& value, const Value& expected) {
    const auto* pNumber = std::get_if<std::int32_t>(&expected);
    const auto* pText = std::get_if<std::string>(&expected);
    const auto* pBytes = std::get_if<ByteList>(&expected);
    const std::string_view bytes(value.pBuffer.get(), value.nBufferSize);
    return static_cast<std::size_t>(value.type) == expected.index() &&
           value.nValue == (pNumber == nullptr ? 0 : *pNumber) &&
           value.strValue == (pText == nullptr ? "" : *pText) &&
           (value.pBuffer != nullptr) == (pBytes != nullptr) &&
           std::ranges::equal(bytes, pBytes == nullptr ? ByteList() : *pBytes);
}

void CheckValues(DBusMessage* pReply, const std::vector<Value>& expected) {
    CPort port;
    std::vector<CDbusValue> values{CDbusValue::OfInt(7)};
    Require(port.MessageToList(pReply, values) == (pReply == nullptr ? 0 : 1),
            "a null message is not read");
    Require(values.size() == expected.size() + 1 && IsSame(values.front(), Value(7)),
            "values are appended");
    for (std::size_t i = 0; i < expected.size(); ++i) {
        Require(IsSame(values[i + 1], expected[i]), "a value is that of its triple");
    }
}

/// @return the number at an index, if any
std::optional<std::int32_t> NumberAt(const std::vector<Value>& values, std::size_t place) {
    const auto* pNumber =
        place < values.size() ? std::get_if<std::int32_t>(&values[place]) : nullptr;
    return pNumber == nullptr ? std::nullopt : std::optional(*pNumber);
}

// A reply that is no error begins with a status. A policy and an acceptance are one more number and
// nothing else.
void CheckResults(DBusMessage* pReply, const std::vector<Value>& values) {
    CAnsweringBus bus(pReply);
    CTYServiceProxy proxy(bus);
    const bool isError =
        pReply != nullptr && dbus_message_get_type(pReply) == DBUS_MESSAGE_TYPE_ERROR;
    const bool success = !isError && NumberAt(values, 0).value_or(0) != 0;
    const auto answer = success && values.size() == 2 ? NumberAt(values, 1) : std::nullopt;
    std::string name = "org.example.app";
    int policy = -1;
    Require(
        proxy.GetPolicyInfo(name, &policy) == answer.has_value() && policy == answer.value_or(0),
        "a policy is a status and one number");
    std::vector<TYMediaData> records(1);
    std::vector<std::string> urls(1);
    Require(proxy.SendData(records, urls) == (answer.value_or(0) != 0),
            "a batch is accepted by two nonzero numbers");
    Require(proxy.Kick() == success, "a kick succeeds by a nonzero status");
}

/// @return the lowest free file descriptor
int FreeFd() {
    const int fd = dup(STDIN_FILENO);
    close(fd);
    return fd;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t size) {
    const int freeFd = FreeFd();
    {
        CBytes bytes(pData, size);
        const TYMessagePtr reply = CMessageBuilder::Make(
            bytes, TYMessagePtr(dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN)), kSteps, false);
        const std::vector<Value> expected =
            reply == nullptr ? std::vector<Value>{} : ExpectedValues(ReadArguments(reply.get()));
        CheckValues(reply.get(), expected);
        CheckResults(reply.get(), expected);
    }
    Require(FreeFd() == freeFd, "no descriptor is left open");
    CPlatformDouble::Instance().Reset();
    return 0;
}
