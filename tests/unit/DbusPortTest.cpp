// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"
#include "Sanitizers.h"
#include "TYDbusPort.h"
#include "TYMessagePtr.h"

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

class CDbusPortTest : public CPlatformTest {
  protected:
    std::string Signature() { return dbus_message_get_signature(m_Message.get()); }
    CFakeBus::Arguments Written() { return CFakeBus::Read(m_Message.get()); }

    std::vector<CDbusValue> Decode(const CFakeBus::Arguments& body) {
        const TYMessagePtr message(CFakeBus::MakeMessage(body));
        std::vector<CDbusValue> values;
        EXPECT_EQ(m_Port.MessageToList(message.get(), values), 1);
        return values;
    }

    CPort m_Port;
    TYMessagePtr m_Message{dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN)};
};

TEST_F(CDbusPortTest, EmptyListLeavesTheMessageUnchangedAndReturnsTheIndex) {
    std::vector<CDbusValue> values;
    EXPECT_EQ(m_Port.ListToMessage(m_Message.get(), 5, values), 5);
    EXPECT_EQ(Signature(), "");
}

TEST_F(CDbusPortTest, SuccessiveCallsContinueWhereTheLastOneEnded) {
    CDbusValue first = CDbusValue::OfString("Kick");
    std::vector<CDbusValue> rest{CDbusValue::OfInt(1)};
    EXPECT_EQ(m_Port.ValueToMessage(m_Message.get(), 0, first), 1);
    EXPECT_EQ(m_Port.ListToMessage(m_Message.get(), 1, rest), 2);
    EXPECT_EQ(Signature(), "iisiii");
    EXPECT_EQ(std::get<std::int32_t>(Written()[3]), 1);
}

TEST_F(CDbusPortTest, StartsWithoutAConnection) {
    EXPECT_EQ(m_Port.Connection(), nullptr);
}

TEST_F(CDbusPortTest, IntStringAndBufferAreWrittenAsTriplesAndReadBack) {
    std::vector<CDbusValue> values{CDbusValue::OfInt(7), CDbusValue::OfString("abc"),
                                   CDbusValue::OfBinary("\1\2\3", 3)};
    EXPECT_EQ(m_Port.ListToMessage(m_Message.get(), 0, values), 3);
    EXPECT_EQ(Signature(), "iiiiisiiay");
    EXPECT_EQ(Written(), (CFakeBus::Arguments{0, 0, 7, 1, 1, "abc", 2, 2, Bytes{1, 2, 3}}));
    const auto read = m_Port.MessageToList(m_Message.get());
    m_Message.reset();  // the values do not point into it
    ASSERT_EQ(read.size(), 3U);
    EXPECT_EQ(read[0].type, DBUS_VALUE_INT);
    EXPECT_EQ(read[0].nValue, 7);
    EXPECT_EQ(read[1].type, DBUS_VALUE_STRING);
    EXPECT_EQ(read[1].strValue, "abc");
    EXPECT_EQ(read[2].type, DBUS_VALUE_BINARY);
    EXPECT_EQ(std::string(read[2].pBuffer.get(), read[2].nBufferSize), "\1\2\3");
}

TEST_F(CDbusPortTest, BinaryValueWithoutABufferIsAnEmptyArray) {
    CDbusValue value;
    value.type = DBUS_VALUE_BINARY;
    for (const std::uint32_t size : {0U, 64U}) {
        m_Message.reset(dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN));
        value.nBufferSize = size;
        EXPECT_EQ(m_Port.ValueToMessage(m_Message.get(), 4, value), 5);
        EXPECT_EQ(Written(), (CFakeBus::Arguments{4, 2, Bytes{}}));
    }
}

TEST_F(CDbusPortTest, TextIsWrittenUpToItsFirstNulAndMadeValidUtf8) {
    const std::pair<std::string, std::string> texts[] = {
        {std::string("ab\0c", 4), "ab"},
        {"a\xff\xc3(b", "a\uFFFD\uFFFD(b"},
        {"\xe2\x82", "\uFFFD\uFFFD"},                      // truncated
        {"\xc0\xaf", "\uFFFD\uFFFD"},                      // overlong
        {"\xed\xa0\x80", "\uFFFD\uFFFD\uFFFD"},            // half of a surrogate pair
        {"\xf4\x90\x80\x80", "\uFFFD\uFFFD\uFFFD\uFFFD"},  // beyond the last code point
        {"\xef\xbf\xbf", "\xef\xbf\xbf"},                  // a noncharacter, which is valid
        {std::string("\0\xff", 2), ""},                    // invalid behind the NUL
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
    EXPECT_EQ(m_Port.ValueToMessage(m_Message.get(), 73, function), 73);
}

TEST_F(CDbusPortTest, ListThatTheSignatureCannotHoldIsRefusedAndTheMessageStaysUnchanged) {
    std::vector<CDbusValue> values(37, CDbusValue::OfBinary("x", 1));
    values.resize(74, CDbusValue::OfString("url"));
    CDbusValue function = CDbusValue::OfString("SendData");
    for (const std::string before : {"", "iis"}) {
        EXPECT_EQ(m_Port.ListToMessage(m_Message.get(), 1, values), 1);
        EXPECT_EQ(Signature(), before);
        m_Port.ValueToMessage(m_Message.get(), 0, function);
    }
    EXPECT_EQ(
        m_Platform.CountLog(LOGSVC_ERROR, kTagUtil, "74 values are more than one message holds"),
        2U);
}

TEST_F(CDbusPortTest, UnsupportedTypeIsPrintedAndFailsAnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (const int type : {3, 4, -1}) {
        CDbusValue value;
        value.type = static_cast<DbusValueType>(type);
        const auto write = [&] {
            dup2(STDERR_FILENO, STDOUT_FILENO);
            m_Port.ValueToMessage(m_Message.get(), 0, value);
        };
        EXPECT_DEATH(write(),
                     "NOT SUPPORT TYPEService/src/TYDbusPort.cpp:76: int "
                     "CDbusPort::ListToMessage\\(DBusMessage\\*, int, "
                     "std::vector<CDbusValue>&\\): Assertion `false' failed")
            << type;
    }
}

TEST_F(CDbusPortTest, IndicesAreIgnored) {
    const auto values = Decode({77, 0, 1, -5, 0, 2});
    ASSERT_EQ(values.size(), 2U);
    EXPECT_EQ(values[1].nValue, 2);
}

TEST_F(CDbusPortTest, EmptyByteArrayGivesAnEmptyBufferThatIsNotNull) {
    const auto values = Decode({0, 2, Bytes{}});
    ASSERT_EQ(values.size(), 1U);
    EXPECT_EQ(values[0].type, DBUS_VALUE_BINARY);
    EXPECT_EQ(values[0].nBufferSize, 0U);
    EXPECT_NE(values[0].pBuffer, nullptr);
}

TEST_F(CDbusPortTest, DecodingAppends) {
    std::vector<CDbusValue> values{CDbusValue::OfInt(1)};
    const TYMessagePtr message(CFakeBus::MakeMessage({0, 0, 2}));
    EXPECT_EQ(m_Port.MessageToList(message.get(), values), 1);
    ASSERT_EQ(values.size(), 2U);
    EXPECT_EQ(values[0].nValue, 1);
    EXPECT_EQ(values[1].nValue, 2);
}

TEST_F(CDbusPortTest, NullMessageIsEmpty) {
    std::vector<CDbusValue> values{CDbusValue::OfInt(1)};
    EXPECT_EQ(m_Port.MessageToList(nullptr, values), 0);
    EXPECT_EQ(values.size(), 1U);
    EXPECT_TRUE(LoggedAt(LOGSVC_ERROR, kTagUtil, "TYDbusPort.cpp", "MessageToList", 126,
                         "message is empty"));
    EXPECT_TRUE(m_Port.MessageToList(nullptr).empty());
}

TEST_F(CDbusPortTest, AllocationFailureLeavesTheValuesDecodedBeforeIt) {
    if (kUnderThreadSanitizer) {
        GTEST_SKIP() << "the sanitizer does not let a program replace operator new";
    }
    const std::size_t large = 100000;
    for (const CFakeBus::Argument& payload :
         {CFakeBus::Argument(Bytes(large)), CFakeBus::Argument(std::string(large, 'x'))}) {
        const int type = payload.index() == 1 ? DBUS_VALUE_STRING : DBUS_VALUE_BINARY;
        const TYMessagePtr message(
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

TEST(DbusValue, StartsAsNone) {
    const CDbusValue value;
    EXPECT_EQ(value.type, DBUS_VALUE_NONE);
    EXPECT_EQ(value.nValue, 0);
    EXPECT_EQ(value.strValue, "");
    EXPECT_EQ(value.pBuffer, nullptr);
    EXPECT_EQ(value.nBufferSize, 0U);
}

TEST(DbusValue, CopiesShareTheBufferWhichTheLastOwnerFrees) {
    auto pValue = std::make_unique<CDbusValue>(CDbusValue::OfBinary("abc", 3));
    auto pCopy = std::make_unique<CDbusValue>(*pValue);
    const std::weak_ptr<char[]> buffer = pValue->pBuffer;
    EXPECT_EQ(pCopy->pBuffer.get(), pValue->pBuffer.get());
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
