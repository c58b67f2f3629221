// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "FailingAllocations.h"
#include "Fixtures.h"
#include "Sanitizers.h"
#include "TYDbusPort.h"
#include "TYMessagePtr.h"

#include <gio/gio.h>

using Bytes = std::vector<char>;
using testing::ElementsAre;
using testing::IsEmpty;

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
static_assert(offsetof(CDbusValue, type) == 0 && offsetof(CDbusValue, nValue) == 4);
static_assert(offsetof(CDbusValue, nValue) < offsetof(CDbusValue, strValue));
static_assert(offsetof(CDbusValue, strValue) < offsetof(CDbusValue, pBuffer));
static_assert(offsetof(CDbusValue, pBuffer) < offsetof(CDbusValue, nBufferSize));

// Arguments of a body, as GVariant texts.
using Texts = std::vector<std::string>;

/// @return the kinds of arguments that are expected nowhere, and some more
Texts UnexpectedKindsAnd(std::initializer_list<const char*> more) {
    Texts kinds{"int64 -1",        "uint64 5",       "int16 5", "uint16 5", "byte 5",   "1.5",
                "objectpath '/a'", "signature 'ay'", "<1>",     "(1,)",     "['text']", "[1]",
                "@as []"};
    kinds.insert(kinds.end(), more.begin(), more.end());
    return kinds;
}

/// Makes a reply with these arguments.
TYMessagePtr MakeReply(const Texts& arguments) {
    std::string text;
    for (const std::string& argument : arguments) {
        text += (text.empty() ? "" : ", ") + argument;
    }
    // A tuple of one needs a comma.
    text = "(" + text + (arguments.size() == 1 ? ",)" : ")");
    GVariant* pBody = g_variant_parse(nullptr, text.c_str(), nullptr, nullptr, nullptr);
    GDBusMessage* pBuilt = g_dbus_message_new();
    g_dbus_message_set_message_type(pBuilt, G_DBUS_MESSAGE_TYPE_METHOD_RETURN);
    g_dbus_message_set_reply_serial(pBuilt, 1);
    g_dbus_message_set_serial(pBuilt, 1);
    g_dbus_message_set_body(pBuilt, pBody);
    gsize size = 0;
    guchar* pBytes = g_dbus_message_to_blob(pBuilt, &size, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr);
    TYMessagePtr message(
        dbus_message_demarshal(reinterpret_cast<char*>(pBytes), static_cast<int>(size), nullptr));
    g_free(pBytes);
    g_object_unref(pBuilt);
    EXPECT_NE(message, nullptr) << text;
    return message;
}

/// @return the values as "i7", "stext" and "b" with the bytes
Texts ToTexts(const std::vector<CDbusValue>& values) {
    Texts texts;
    for (const CDbusValue& value : values) {
        EXPECT_EQ(value.pBuffer != nullptr, value.type == DBUS_VALUE_BINARY);
        texts.push_back(value.type == DBUS_VALUE_INT      ? "i" + std::to_string(value.nValue)
                        : value.type == DBUS_VALUE_STRING ? "s" + value.strValue
                                                          : "b");
        texts.back().append(value.pBuffer.get(), value.nBufferSize);
    }
    return texts;
}

/// The values that a reply is read as.
Texts Decode(const Texts& arguments) {
    return ToTexts(CPort().MessageToList(MakeReply(arguments).get()));
}

class CDbusPortTest : public CPlatformTest {
  protected:
    std::string Signature() { return dbus_message_get_signature(m_Message.get()); }
    CFakeBus::Arguments Written() { return CFakeBus::Read(m_Message.get()); }

    CPort m_Port;
    TYMessagePtr m_Message{dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN)};
};

TEST_F(CDbusPortTest, StartsWithoutAConnection) {
    EXPECT_EQ(m_Port.Connection(), nullptr);
}

TEST_F(CDbusPortTest, EmptyListLeavesTheMessageUnchangedAndReturnsTheIndex) {
    std::vector<CDbusValue> values;
    EXPECT_EQ(m_Port.ListToMessage(m_Message.get(), 5, values), 5);
    EXPECT_EQ(Signature(), "");
}

TEST_F(CDbusPortTest, IntStringAndBufferAreWrittenAsTriplesBehindTheLastAndReadBack) {
    CDbusValue first = CDbusValue::OfInt(7);
    std::vector<CDbusValue> rest{CDbusValue::OfString("abc"), CDbusValue::OfBinary("\1\2\3", 3)};
    EXPECT_EQ(m_Port.ValueToMessage(m_Message.get(), 0, first), 1);
    EXPECT_EQ(m_Port.ListToMessage(m_Message.get(), 1, rest), 3);
    EXPECT_EQ(Signature(), "iiiiisiiay");
    EXPECT_EQ(Written(), (CFakeBus::Arguments{0, 0, 7, 1, 1, "abc", 2, 2, Bytes{1, 2, 3}}));
    const auto read = m_Port.MessageToList(m_Message.get());
    m_Message.reset();  // the values do not point into it
    EXPECT_THAT(ToTexts(read), ElementsAre("i7", "sabc", "b\1\2\3"));
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

TEST_F(CDbusPortTest, IndicesAreIgnoredAndValuesAreAppended) {
    std::vector<CDbusValue> values{CDbusValue::OfInt(5)};
    const TYMessagePtr reply = MakeReply({"77", "0", "1", "-5", "2", "@ay []"});
    EXPECT_EQ(m_Port.MessageToList(reply.get(), values), 1);
    EXPECT_THAT(ToTexts(values), ElementsAre("i5", "i1", "b"));
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
        CFakeBus::Append(m_Message.get(),
                         {0, 0, 7, 1, 1, "abc", 2, 2, Bytes{1, 2}, 3, type, payload});
        std::vector<CDbusValue> values{CDbusValue::OfInt(5)};
        FailAllocationsFrom(large);
        EXPECT_THROW(m_Port.MessageToList(m_Message.get(), values), std::bad_alloc);
        FailAllocationsFrom(SIZE_MAX);
        EXPECT_THAT(ToTexts(values), ElementsAre("i5", "i7", "sabc", "b\1\2"));
        m_Message.reset(dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN));
    }
}

TEST_F(CDbusPortTest, OtherKindReadsAsZeroWhereAnIntIsExpected) {
    for (const std::string& wrong : UnexpectedKindsAnd({"'text'", "[byte 200]"})) {
        SCOPED_TRACE(wrong);
        // The index, which is ignored; the type, of which 0 is an int; the payload.
        EXPECT_THAT(Decode({wrong, "0", "7", "0", "0", "42"}), ElementsAre("i7", "i42"));
        EXPECT_THAT(Decode({"0", wrong, "7", "0", "0", "42"}), ElementsAre("i7", "i42"));
        EXPECT_THAT(Decode({"0", "0", wrong, "0", "0", "42"}), ElementsAre("i0", "i42"));
        // At the end of a body it adds nothing.
        EXPECT_THAT(Decode({"0", "0", "7", wrong}), ElementsAre("i7"));
        EXPECT_THAT(Decode({"0", "0", "7", "1", wrong}), ElementsAre("i7"));
    }
}

// Some services answer with an unsigned or boolean status: each 32-bit basic value is an int.
TEST_F(CDbusPortTest, UnsignedOrBooleanValueIsAnInt) {
    EXPECT_THAT(
        Decode({"uint32 7", "uint32 0", "uint32 7", "uint32 0", "uint32 0", "uint32 4294967295"}),
        ElementsAre("i7", "i-1"));
    EXPECT_THAT(
        Decode({"false", "false", "true", "true", "true", "'text'", "false", "false", "false"}),
        ElementsAre("i1", "stext", "i0"));
}

TEST_F(CDbusPortTest, OtherKindReadsAsAnEmptyTextOrNoBytesAndIsTheNextIndex) {
    for (const std::string& wrong : UnexpectedKindsAnd({"3", "uint32 3", "true"})) {
        SCOPED_TRACE(wrong);
        m_Platform.ClearLog();
        EXPECT_THAT(Decode({"0", "1", wrong, "0", "42"}), ElementsAre("s", "i42"));
        EXPECT_TRUE(LoggedAt(LOGSVC_ERROR, kTagUtil, "TYDbusPort.cpp",
                             "PopMessage<std::__cxx11::basic_string<char> >", 16,
                             "String should be in DBusMessage"));
        EXPECT_THAT(Decode({"0", "2", wrong, "0", "42"}), ElementsAre("b", "i42"));
        EXPECT_TRUE(UtilError("Array of bytes should be in DBusMessage"));
    }
    EXPECT_THAT(Decode({"0", "1", "[byte 200]", "0", "42"}), ElementsAre("s", "i42"));
    EXPECT_THAT(Decode({"0", "2", "'text'", "0", "42"}), ElementsAre("b", "i42"));
}

TEST_F(CDbusPortTest, DescriptorIsReadAsAnyOtherKindAndClosed) {
    const struct {
        std::size_t place;
        int type;
        const char* value;
    } cases[] = {{0, 0, "i7"}, {1, 0, "i7"}, {2, 0, "i0"}, {2, 1, "s"}, {2, 2, "b"}};
    const int freeFd = FreeFd();
    for (const auto& [place, type, value] : cases) {
        const int arguments[] = {0, type, 7};
        for (std::size_t i = 0; i < 3; ++i) {
            const int argument = i == place ? STDIN_FILENO : arguments[i];
            dbus_message_append_args(m_Message.get(),
                                     i == place ? DBUS_TYPE_UNIX_FD : DBUS_TYPE_INT32, &argument,
                                     DBUS_TYPE_INVALID);
        }
        EXPECT_THAT(ToTexts(m_Port.MessageToList(m_Message.get())), ElementsAre(value));
        m_Message.reset(dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN));
    }
    EXPECT_EQ(FreeFd(), freeFd);
}

TEST_F(CDbusPortTest, TruncatedBodyGivesItsCompleteTriples) {
    const Texts body{"0", "0", "7", "1", "1", "'text'", "2", "2", "[byte 65]"};
    const Texts expected{"i7", "stext", "bA"};
    for (long length = 0; length <= 9; ++length) {
        EXPECT_EQ(Decode(Texts{body.begin(), body.begin() + length}),
                  Texts(expected.begin(), expected.begin() + length / 3));
    }
    EXPECT_THAT(m_Platform.Log(), IsEmpty());
}

TEST_F(CDbusPortTest, UnknownTypeIsLoggedAndItsPayloadIsReadAsTheNextIndex) {
    for (const int type : {-1, 3, 4, 9, 256, INT32_MAX, INT32_MIN}) {
        m_Platform.ClearLog();
        EXPECT_THAT(Decode({"0", std::to_string(type), "'text'", "0", "42"}), ElementsAre("i42"));
        EXPECT_TRUE(LoggedAt(LOGSVC_ERROR, kTagUtil, "TYDbusPort.cpp", "MessageToList", 183,
                             "invalid type!"));
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

}  // namespace
