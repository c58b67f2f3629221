// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "AllocationLimit.h"
#include "Fixtures.h"
#include "Sanitizers.h"
#include "TYDbusPort.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <memory>
#include <new>
#include <type_traits>

using testing::ElementsAre;
using testing::IsEmpty;
using Bytes = std::vector<char>;

namespace {

class CPort : public CDbusPort {
  public:
    bool IsReady() override { return true; }
    DBusConnection* Connection() const { return m_pConnection; }
};

static_assert(std::is_abstract_v<CDbusPort>);
static_assert(sizeof(DbusValueType) == 4 &&
              std::is_signed_v<std::underlying_type_t<DbusValueType>>);
static_assert(DBUS_VALUE_INT == 0 && DBUS_VALUE_STRING == 1);
static_assert(DBUS_VALUE_BINARY == 2 && DBUS_VALUE_NONE == 3);

struct FreeMessage {
    void operator()(DBusMessage* pMessage) const { dbus_message_unref(pMessage); }
};
using MessagePtr = std::unique_ptr<DBusMessage, FreeMessage>;

class CDbusPortTest : public CPlatformTest {
  protected:
    std::string Signature() { return dbus_message_get_signature(m_Message.get()); }
    CFakeBus::Arguments Written() { return CFakeBus::Read(m_Message.get()); }

    std::vector<CDbusValue> Decode(const CFakeBus::Arguments& body) {
        const MessagePtr message(CFakeBus::MakeMessage(body));
        std::vector<CDbusValue> values;
        EXPECT_EQ(m_Port.MessageToList(message.get(), values), 1);
        return values;
    }

    CPort m_Port;
    MessagePtr m_Message{dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN)};
};

TEST_F(CDbusPortTest, EmptyListLeavesTheMessageUnchangedAndReturnsTheIndex) {
    std::vector<CDbusValue> values;
    EXPECT_EQ(m_Port.ListToMessage(m_Message.get(), 5, values), 5);
    EXPECT_EQ(Signature(), "");
}

TEST_F(CDbusPortTest, IntStringAndBufferAreWrittenAsTriplesAndReadBack) {
    std::vector<CDbusValue> values{CDbusValue::OfInt(7), CDbusValue::OfString("abc"),
                                   CDbusValue::OfBinary("\1\2\3", 3)};
    EXPECT_EQ(m_Port.ListToMessage(m_Message.get(), 0, values), 3);
    EXPECT_EQ(Signature(), "iiiiisiiay");
    EXPECT_THAT(Written(),
                ElementsAre(CFakeBus::Argument(0), CFakeBus::Argument(0), CFakeBus::Argument(7),
                            CFakeBus::Argument(1), CFakeBus::Argument(1), CFakeBus::Argument("abc"),
                            CFakeBus::Argument(2), CFakeBus::Argument(2),
                            CFakeBus::Argument(Bytes{1, 2, 3})));
    const auto read = m_Port.MessageToList(m_Message.get());
    ASSERT_EQ(read.size(), 3U);
    EXPECT_EQ(read[0].type, DBUS_VALUE_INT);
    EXPECT_EQ(read[0].nValue, 7);
    EXPECT_EQ(read[1].type, DBUS_VALUE_STRING);
    EXPECT_EQ(read[1].strValue, "abc");
    EXPECT_EQ(read[2].type, DBUS_VALUE_BINARY);
    EXPECT_EQ(std::string(read[2].pBuffer.get(), read[2].nBufferSize), "\1\2\3");
}

TEST_F(CDbusPortTest, SuccessiveCallsContinueWhereTheLastOneEnded) {
    CDbusValue first = CDbusValue::OfString("Kick");
    std::vector<CDbusValue> rest{CDbusValue::OfInt(1)};
    EXPECT_EQ(m_Port.ValueToMessage(m_Message.get(), 0, first), 1);
    EXPECT_EQ(m_Port.ListToMessage(m_Message.get(), 1, rest), 2);
    EXPECT_EQ(Signature(), "iisiii");
    EXPECT_EQ(std::get<std::int32_t>(Written()[3]), 1);
}

TEST_F(CDbusPortTest, HasNoConnectionOfItsOwn) {
    EXPECT_EQ(m_Port.Connection(), nullptr);
}

TEST_F(CDbusPortTest, ReadinessIsInTheSlotBehindTheDestructor) {
    CDbusPort* pPort = &m_Port;
    void* pFunction = (*reinterpret_cast<void***>(pPort))[2];
    EXPECT_TRUE(reinterpret_cast<bool (*)(CDbusPort*)>(pFunction)(pPort));
}

TEST_F(CDbusPortTest, BinaryValueWithoutABufferIsAnEmptyArray) {
    CDbusValue value;
    value.type = DBUS_VALUE_BINARY;
    EXPECT_EQ(m_Port.ValueToMessage(m_Message.get(), 4, value), 5);
    EXPECT_EQ(Signature(), "iiay");
    EXPECT_THAT(Written(), ElementsAre(CFakeBus::Argument(4), CFakeBus::Argument(2),
                                       CFakeBus::Argument(Bytes{})));
}

TEST_F(CDbusPortTest, BinaryValueThatOnlySaysItHasABufferIsAnEmptyArray) {
    CDbusValue value;
    value.type = DBUS_VALUE_BINARY;
    value.nBufferSize = 64;
    EXPECT_EQ(m_Port.ValueToMessage(m_Message.get(), 0, value), 1);
    EXPECT_THAT(Written(), ElementsAre(CFakeBus::Argument(0), CFakeBus::Argument(2),
                                       CFakeBus::Argument(Bytes{})));
}

TEST_F(CDbusPortTest, WhatWasReadOutlivesTheMessage) {
    std::vector<CDbusValue> values{CDbusValue::OfString("text"), CDbusValue::OfBinary("abc", 3)};
    m_Port.ListToMessage(m_Message.get(), 0, values);
    const auto read = m_Port.MessageToList(m_Message.get());
    m_Message.reset();
    EXPECT_EQ(read.at(0).strValue, "text");
    EXPECT_EQ(std::string(read.at(1).pBuffer.get(), read.at(1).nBufferSize), "abc");
}

TEST_F(CDbusPortTest, IndicesAreNotLookedAt) {
    const auto values = Decode({77, 0, 1, -5, 0, 2});
    ASSERT_EQ(values.size(), 2U);
    EXPECT_EQ(values[1].nValue, 2);
}

TEST_F(CDbusPortTest, IndexAndTypeWithoutAPayloadAddNothing) {
    EXPECT_THAT(Decode({0, 0}), IsEmpty());
    EXPECT_THAT(Decode({0}), IsEmpty());
    EXPECT_THAT(Decode({}), IsEmpty());
}

TEST_F(CDbusPortTest, UnknownTypeIsLoggedAndDecodingGoesOnOneArgumentOutOfStep) {
    const auto values = Decode({0, 9, 5, 0, 42});
    EXPECT_TRUE(
        LoggedAt(LOGSVC_ERROR, kTagUtil, "TYDbusPort.cpp", "MessageToList", 183, "invalid type!"));
    ASSERT_EQ(values.size(), 1U);
    EXPECT_EQ(values[0].nValue, 42);
}

TEST_F(CDbusPortTest, EmptyByteArrayGivesAnEmptyBufferThatIsThere) {
    const auto values = Decode({0, 2, Bytes{}});
    ASSERT_EQ(values.size(), 1U);
    EXPECT_EQ(values[0].type, DBUS_VALUE_BINARY);
    EXPECT_EQ(values[0].nBufferSize, 0U);
    EXPECT_NE(values[0].pBuffer, nullptr);
}

TEST_F(CDbusPortTest, IntWhereAStringIsDueGivesAnEmptyStringAndIsTheNextIndex) {
    const auto values = Decode({0, 1, 33, 0, 8});
    EXPECT_TRUE(LoggedAt(LOGSVC_ERROR, kTagUtil, "TYDbusPort.cpp",
                         "PopMessage<std::__cxx11::basic_string<char> >", 16,
                         "String should be in DBusMessage"));
    ASSERT_EQ(values.size(), 2U);
    EXPECT_EQ(values[0].type, DBUS_VALUE_STRING);
    EXPECT_EQ(values[0].strValue, "");
    EXPECT_EQ(values[1].nValue, 8);
}

TEST_F(CDbusPortTest, AnythingButBytesWhereBytesAreDueGivesNoneAndStays) {
    const auto values = Decode({0, 2, 33, 0, 8});
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTagUtil, "Array of bytes should be in DBusMessage"));
    ASSERT_EQ(values.size(), 2U);
    EXPECT_EQ(values[0].nBufferSize, 0U);
    EXPECT_EQ(values[1].nValue, 8);
}

TEST_F(CDbusPortTest, AnythingButAnIntWhereAnIntIsDueCountsAsZero) {
    const auto values = Decode({0, 0, "text", "index", 0, 5});
    ASSERT_EQ(values.size(), 2U);
    EXPECT_EQ(values[0].nValue, 0);
    EXPECT_EQ(values[1].nValue, 5);
}

TEST_F(CDbusPortTest, WideValuesWriteNowhereElse) {
    const dbus_int64_t wide = -1;
    const double real = 1.5;
    dbus_message_append_args(m_Message.get(), DBUS_TYPE_INT64, &wide, DBUS_TYPE_DOUBLE, &real,
                             DBUS_TYPE_INT64, &wide, DBUS_TYPE_INVALID);
    const auto values = m_Port.MessageToList(m_Message.get());
    ASSERT_EQ(values.size(), 1U);
    EXPECT_EQ(values[0].type, DBUS_VALUE_INT);
    EXPECT_EQ(values[0].nValue, 0);
}

TEST_F(CDbusPortTest, FileDescriptorIsNotDuplicated) {
    const dbus_int32_t zero = 0;
    const int fd = STDIN_FILENO;
    dbus_message_append_args(m_Message.get(), DBUS_TYPE_INT32, &zero, DBUS_TYPE_INT32, &zero,
                             DBUS_TYPE_UNIX_FD, &fd, DBUS_TYPE_INVALID);
    const int before = dup(STDIN_FILENO);
    close(before);
    EXPECT_EQ(m_Port.MessageToList(m_Message.get()).at(0).nValue, 0);
    const int after = dup(STDIN_FILENO);
    close(after);
    EXPECT_EQ(before, after);
}

TEST_F(CDbusPortTest, ArrayOfStringsIsNoArrayOfBytes) {
    const dbus_int32_t zero = 0;
    const dbus_int32_t binary = 2;
    const char* words[] = {"a", "b"};
    const char** pWords = words;
    dbus_message_append_args(m_Message.get(), DBUS_TYPE_INT32, &zero, DBUS_TYPE_INT32, &binary,
                             DBUS_TYPE_ARRAY, DBUS_TYPE_STRING, &pWords, 2, DBUS_TYPE_INVALID);
    const auto values = m_Port.MessageToList(m_Message.get());
    ASSERT_EQ(values.size(), 1U);
    EXPECT_EQ(values[0].nBufferSize, 0U);
}

TEST_F(CDbusPortTest, DecodingAppendsAndNeverClears) {
    std::vector<CDbusValue> values{CDbusValue::OfInt(1)};
    const MessagePtr message(CFakeBus::MakeMessage({0, 0, 2}));
    EXPECT_EQ(m_Port.MessageToList(message.get(), values), 1);
    ASSERT_EQ(values.size(), 2U);
    EXPECT_EQ(values[0].nValue, 1);
    EXPECT_EQ(values[1].nValue, 2);
}

TEST_F(CDbusPortTest, AllocationFailureLeavesTheValuesDecodedBeforeIt) {
    if (kUnderThreadSanitizer) {
        GTEST_SKIP() << "the sanitizer keeps operator new to itself";
    }
    const std::size_t large = 100000;
    for (const CFakeBus::Argument& payload :
         {CFakeBus::Argument(Bytes(large)), CFakeBus::Argument(std::string(large, 'x'))}) {
        const int type = payload.index() == 1 ? DBUS_VALUE_STRING : DBUS_VALUE_BINARY;
        const MessagePtr message(
            CFakeBus::MakeMessage({0, 0, 7, 1, 1, "abc", 2, 2, Bytes{1, 2}, 3, type, payload}));
        std::vector<CDbusValue> values{CDbusValue::OfInt(5)};
        const CAllocationLimit limit(large);
        EXPECT_THROW(m_Port.MessageToList(message.get(), values), std::bad_alloc);
        ASSERT_EQ(values.size(), 4U);
        EXPECT_EQ(values[0].nValue, 5);
        EXPECT_EQ(values[1].nValue, 7);
        EXPECT_EQ(values[2].strValue, "abc");
        EXPECT_EQ(std::string(values[3].pBuffer.get(), values[3].nBufferSize), "\1\2");
    }
}

TEST_F(CDbusPortTest, NullMessageIsEmpty) {
    std::vector<CDbusValue> values{CDbusValue::OfInt(1)};
    EXPECT_EQ(m_Port.MessageToList(nullptr, values), 0);
    EXPECT_EQ(values.size(), 1U);
    EXPECT_TRUE(LoggedAt(LOGSVC_ERROR, kTagUtil, "TYDbusPort.cpp", "MessageToList", 126,
                         "message is empty"));
    EXPECT_THAT(m_Port.MessageToList(nullptr), IsEmpty());
}

TEST_F(CDbusPortTest, TextIsWrittenUpToItsFirstNulAndMadeValidUtf8) {
    std::vector<CDbusValue> values{CDbusValue::OfString(std::string("ab\0c", 4)),
                                   CDbusValue::OfString("a\xff\xc3(b")};
    m_Port.ListToMessage(m_Message.get(), 0, values);
    EXPECT_EQ(std::get<std::string>(Written()[2]), "ab");
    EXPECT_EQ(std::get<std::string>(Written()[5]), "a\uFFFD\uFFFD(b");
}

TEST_F(CDbusPortTest, NoTextIsTooBrokenToBeWritten) {
    const std::vector<std::pair<std::string, std::string>> texts{
        {"\xe2\x82", "\uFFFD\uFFFD"},                      // cut short
        {"\xc0\xaf", "\uFFFD\uFFFD"},                      // longer than need be
        {"\xed\xa0\x80", "\uFFFD\uFFFD\uFFFD"},            // half of a surrogate pair
        {"\xf4\x90\x80\x80", "\uFFFD\uFFFD\uFFFD\uFFFD"},  // behind the last character
        {"\xef\xbf\xbf", "\xef\xbf\xbf"},                  // a character that is none, yet valid
        {std::string("\0\xff", 2), ""},                    // behind the end
    };
    for (const auto& [text, written] : texts) {
        m_Message.reset(dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN));
        CDbusValue value = CDbusValue::OfString(text);
        EXPECT_EQ(m_Port.ValueToMessage(m_Message.get(), 0, value), 1);
        EXPECT_EQ(std::get<std::string>(Written().at(2)), written);
    }
}

TEST_F(CDbusPortTest, MessageHoldsItsFunctionAndThirtySixRecordsWithTheirUrls) {
    CDbusValue function = CDbusValue::OfString("SendData");
    const std::string image(4800, 'r');
    std::vector<CDbusValue> values(36, CDbusValue::OfBinary(image.data(), 4800));
    values.resize(72, CDbusValue::OfString("url"));
    EXPECT_EQ(m_Port.ValueToMessage(m_Message.get(), 0, function), 1);
    EXPECT_EQ(m_Port.ListToMessage(m_Message.get(), 1, values), 73);
    EXPECT_EQ(Signature().size(), 255U);
    EXPECT_EQ(m_Port.MessageToList(m_Message.get()).size(), 73U);
    EXPECT_EQ(m_Platform.Log().size(), 0U);
}

TEST_F(CDbusPortTest, OneRecordMoreIsRefusedAndTheMessageStaysAsItWas) {
    CDbusValue function = CDbusValue::OfString("SendData");
    std::vector<CDbusValue> values(37, CDbusValue::OfBinary("x", 1));
    values.resize(74, CDbusValue::OfString("url"));
    m_Port.ValueToMessage(m_Message.get(), 0, function);
    EXPECT_EQ(m_Port.ListToMessage(m_Message.get(), 1, values), 1);
    EXPECT_EQ(Signature(), "iis");
    EXPECT_EQ(m_Port.MessageToList(m_Message.get()).at(0).strValue, "SendData");
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTagUtil, "74 values are more than one message holds"));
}

TEST_F(CDbusPortTest, ListThatASignatureCannotHoldIsRefusedUntouched) {
    std::vector<CDbusValue> values(37, CDbusValue::OfBinary("x", 1));
    values.resize(74, CDbusValue::OfString("url"));
    EXPECT_EQ(m_Port.ListToMessage(m_Message.get(), 1, values), 1);
    EXPECT_EQ(Signature(), "");
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTagUtil, "74 values are more than one message holds"));
}

TEST_F(CDbusPortTest, WhatTheMessageHoldsAlreadyCountsToo) {
    std::vector<CDbusValue> values(85, CDbusValue::OfInt(1));
    CDbusValue one = CDbusValue::OfInt(1);
    EXPECT_EQ(m_Port.ListToMessage(m_Message.get(), 0, values), 85);
    EXPECT_EQ(Signature().size(), 255U);
    EXPECT_EQ(m_Port.ValueToMessage(m_Message.get(), 85, one), 85);
}

TEST_F(CDbusPortTest, UnsupportedTypeEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    std::vector<CDbusValue> values{CDbusValue()};
    EXPECT_DEATH(m_Port.ListToMessage(m_Message.get(), 0, values),
                 "TYDbusPort.cpp:76: int CDbusPort::ListToMessage\\(DBusMessage\\*, int, "
                 "std::vector<CDbusValue>&\\): Assertion `false' failed");
}

TEST_F(CDbusPortTest, UnsupportedTypeIsToldOnStandardOutputWithoutALineEnd) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (const int type : {3, 4, -1}) {
        CDbusValue value;
        value.type = static_cast<DbusValueType>(type);
        const auto write = [&] {
            dup2(STDERR_FILENO, STDOUT_FILENO);
            m_Port.ValueToMessage(m_Message.get(), 0, value);
        };
        EXPECT_DEATH(write(), "NOT SUPPORT TYPEService/src/TYDbusPort.cpp:76: ") << type;
    }
}

TEST(DbusValue, StartsAsNone) {
    const CDbusValue value;
    EXPECT_EQ(value.type, DBUS_VALUE_NONE);
    EXPECT_EQ(value.nValue, 0);
    EXPECT_EQ(value.strValue, "");
    EXPECT_EQ(value.pBuffer, nullptr);
    EXPECT_EQ(value.nBufferSize, 0U);
}

TEST(DbusValue, CopiesShareTheBuffer) {
    const CDbusValue value = CDbusValue::OfBinary("abc", 3);
    const CDbusValue copy = value;  // NOLINT(performance-unnecessary-copy-initialization)
    EXPECT_EQ(copy.pBuffer.get(), value.pBuffer.get());
}

TEST(DbusValue, LastOwnerFreesTheBuffer) {
    auto pValue = std::make_unique<CDbusValue>(CDbusValue::OfBinary("abc", 3));
    auto pCopy = std::make_unique<CDbusValue>(*pValue);
    const std::weak_ptr<char[]> buffer = pValue->pBuffer;
    pValue.reset();
    EXPECT_FALSE(buffer.expired());
    pCopy.reset();
    EXPECT_TRUE(buffer.expired());
}

TEST(DbusValue, FieldsAreInTheirOrder) {
    const CDbusValue value;
    const auto place = [&](const auto& field) {
        return reinterpret_cast<const char*>(&field) - reinterpret_cast<const char*>(&value);
    };
    EXPECT_EQ(place(value.type), 0);
    EXPECT_EQ(place(value.nValue), 4);
    EXPECT_LT(place(value.nValue), place(value.strValue));
    EXPECT_LT(place(value.strValue), place(value.pBuffer));
    EXPECT_LT(place(value.pBuffer), place(value.nBufferSize));
}

}  // namespace
