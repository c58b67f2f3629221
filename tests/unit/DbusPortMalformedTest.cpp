// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"
#include "TYDbusPort.h"
#include "TYMessagePtr.h"

#include <gio/gio.h>

using testing::ElementsAre;

namespace {

class CPort : public CDbusPort {
  public:
    bool IsReady() override { return true; }
};

// Arguments that a body may have where another one is expected, as GVariant texts.
using Kinds = std::vector<std::string>;
constexpr const char* kInt = "3";
constexpr const char* kUint32 = "uint32 3";
constexpr const char* kBoolean = "true";
constexpr const char* kText = "'text'";
constexpr const char* kBytes = "[byte 200]";

/// @return the kinds that are expected nowhere, and some more
Kinds UnexpectedKindsAnd(std::initializer_list<const char*> more) {
    Kinds kinds{"int64 -1",        "uint64 5",       "int16 5", "uint16 5", "byte 5",   "1.5",
                "objectpath '/a'", "signature 'ay'", "<1>",     "(1,)",     "['text']", "[1]",
                "@as []"};
    kinds.insert(kinds.end(), more.begin(), more.end());
    return kinds;
}

/// @return the values as "i7", "stext" and "b3", which is the number of bytes
std::vector<std::string> Decode(DBusMessage* pMessage) {
    CPort port;
    std::vector<CDbusValue> values;
    EXPECT_EQ(port.MessageToList(pMessage, values), 1);
    std::vector<std::string> texts;
    for (const CDbusValue& value : values) {
        EXPECT_EQ(value.pBuffer != nullptr, value.type == DBUS_VALUE_BINARY);
        texts.push_back(value.type == DBUS_VALUE_INT ? "i" + std::to_string(value.nValue)
                        : value.type == DBUS_VALUE_STRING
                            ? "s" + value.strValue
                            : "b" + std::to_string(value.nBufferSize));
    }
    return texts;
}

/// Decodes a reply whose arguments are given as GVariant texts.
std::vector<std::string> Decode(const Kinds& arguments) {
    std::string text;
    for (const std::string& argument : arguments) {
        text += (text.empty() ? "" : ", ") + argument;
    }
    // A tuple of one needs a comma.
    text += arguments.size() == 1 ? "," : "";
    GVariant* pBody =
        g_variant_parse(nullptr, ("(" + text + ")").c_str(), nullptr, nullptr, nullptr);
    GDBusMessage* pBuilt = g_dbus_message_new();
    g_dbus_message_set_message_type(pBuilt, G_DBUS_MESSAGE_TYPE_METHOD_RETURN);
    g_dbus_message_set_reply_serial(pBuilt, 1);
    g_dbus_message_set_serial(pBuilt, 1);
    g_dbus_message_set_body(pBuilt, pBody);
    gsize size = 0;
    guchar* pBytes = g_dbus_message_to_blob(pBuilt, &size, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr);
    const TYMessagePtr message(
        dbus_message_demarshal(reinterpret_cast<char*>(pBytes), static_cast<int>(size), nullptr));
    g_free(pBytes);
    g_object_unref(pBuilt);
    EXPECT_NE(message, nullptr) << text;
    return Decode(message.get());
}

class CDbusBodyTest : public CPlatformTest {};

TEST_F(CDbusBodyTest, OtherKindReadsAsZeroWhereAnIntIsExpected) {
    for (const std::string& wrong : UnexpectedKindsAnd({kText, kBytes})) {
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
TEST_F(CDbusBodyTest, UnsignedOrBooleanValueIsAnInt) {
    EXPECT_THAT(
        Decode({"uint32 7", "uint32 0", "uint32 7", "uint32 0", "uint32 0", "uint32 4294967295"}),
        ElementsAre("i7", "i-1"));
    EXPECT_THAT(
        Decode({"false", "false", "true", "true", "true", kText, "false", "false", "false"}),
        ElementsAre("i1", "stext", "i0"));
}

TEST_F(CDbusBodyTest, OtherKindReadsAsAnEmptyTextAndIsTheNextIndex) {
    for (const std::string& wrong : UnexpectedKindsAnd({kInt, kUint32, kBoolean, kBytes})) {
        SCOPED_TRACE(wrong);
        m_Platform.ClearLog();
        EXPECT_THAT(Decode({"0", "1", wrong, "0", "42"}), ElementsAre("s", "i42"));
        EXPECT_TRUE(LoggedAt(LOGSVC_ERROR, kTagUtil, "TYDbusPort.cpp",
                             "PopMessage<std::__cxx11::basic_string<char> >", 16,
                             "String should be in DBusMessage"));
    }
}

TEST_F(CDbusBodyTest, OtherKindReadsAsNoBytesAndIsTheNextIndex) {
    for (const std::string& wrong : UnexpectedKindsAnd({kInt, kUint32, kBoolean, kText})) {
        SCOPED_TRACE(wrong);
        m_Platform.ClearLog();
        EXPECT_THAT(Decode({"0", "2", wrong, "0", "42"}), ElementsAre("b0", "i42"));
        EXPECT_TRUE(UtilError("Array of bytes should be in DBusMessage"));
    }
}

TEST_F(CDbusBodyTest, DescriptorIsReadAsAnyOtherKindAndClosed) {
    const struct {
        std::size_t place;
        int type;
        const char* value;
    } cases[] = {{0, 0, "i7"}, {1, 0, "i7"}, {2, 0, "i0"}, {2, 1, "s"}, {2, 2, "b0"}};
    const int freeFd = FreeFd();
    for (const auto& [place, type, value] : cases) {
        SCOPED_TRACE(value);
        const TYMessagePtr message(dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN));
        const int arguments[] = {0, type, 7};
        for (std::size_t i = 0; i < 3; ++i) {
            const int argument = i == place ? STDIN_FILENO : arguments[i];
            dbus_message_append_args(message.get(),
                                     i == place ? DBUS_TYPE_UNIX_FD : DBUS_TYPE_INT32, &argument,
                                     DBUS_TYPE_INVALID);
        }
        EXPECT_THAT(Decode(message.get()), ElementsAre(value));
    }
    EXPECT_EQ(FreeFd(), freeFd);
}

TEST_F(CDbusBodyTest, TruncatedBodyGivesItsCompleteTriples) {
    const Kinds body{"0", "0", "7", "1", "1", kText, "2", "2", kBytes};
    const Kinds expected{"i7", "stext", "b1"};
    for (long length = 0; length <= 9; ++length) {
        EXPECT_EQ(Decode(Kinds{body.begin(), body.begin() + length}),
                  Kinds(expected.begin(), expected.begin() + length / 3));
    }
    EXPECT_EQ(m_Platform.Log().size(), 0U);
}

TEST_F(CDbusBodyTest, BodyOfThreeArgumentsGivesAtMostOneValue) {
    const Kinds kinds =
        UnexpectedKindsAnd({kUint32, kBoolean, kText, kBytes, "0", "1", "2", "9", "-1"});
    for (const std::string& first : kinds) {
        for (const std::string& second : kinds) {
            for (const std::string& third : kinds) {
                ASSERT_LE(Decode({first, second, third}).size(), 1U) << first << second << third;
            }
        }
    }
}

TEST_F(CDbusBodyTest, UnknownTypeIsLoggedAndItsPayloadIsReadAsTheNextIndex) {
    for (const int type : {-1, 3, 4, 9, 256, INT32_MAX, INT32_MIN}) {
        m_Platform.ClearLog();
        EXPECT_THAT(Decode({"0", std::to_string(type), kText, "0", "42"}), ElementsAre("i42"));
        EXPECT_TRUE(LoggedAt(LOGSVC_ERROR, kTagUtil, "TYDbusPort.cpp", "MessageToList", 183,
                             "invalid type!"));
    }
}

}  // namespace
