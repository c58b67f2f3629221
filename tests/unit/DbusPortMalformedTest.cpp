// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"
#include "TYDbusPort.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <functional>

using testing::ElementsAre;

namespace {

using Append = std::function<void(DBusMessageIter*)>;

/// An argument that a body may have where another one is expected.
using Kind = Named<Append>;

class CPort : public CDbusPort {
  public:
    bool IsReady() override { return true; }
};

template <class Value>
Append Basic(int type, Value value) {
    return [type, value](DBusMessageIter* pIterator) {
        dbus_message_iter_append_basic(pIterator, type, &value);
    };
}

Append Int(dbus_int32_t value) {
    return Basic(DBUS_TYPE_INT32, value);
}

Append Container(int type, const char* contents, const Append& content) {
    return [type, contents, content](DBusMessageIter* pIterator) {
        DBusMessageIter inner;
        dbus_message_iter_open_container(pIterator, type, contents, &inner);
        content(&inner);
        dbus_message_iter_close_container(pIterator, &inner);
    };
}

const Kind kInt{"Int", Int(3)};
const Kind kUint32{"Uint32", Basic(DBUS_TYPE_UINT32, dbus_uint32_t{3})};
const Kind kBoolean{"Boolean", Basic(DBUS_TYPE_BOOLEAN, dbus_bool_t{1})};
const Kind kText{"Text", Basic(DBUS_TYPE_STRING, "text")};
const Kind kBytes{"Bytes",
                  Container(DBUS_TYPE_ARRAY, "y", Basic(DBUS_TYPE_BYTE, static_cast<char>(200)))};

/// @return the kinds that are expected nowhere, and some more
std::vector<Kind> UnexpectedKindsAnd(std::initializer_list<Kind> more) {
    const Append text = kText.data;
    std::vector<Kind> kinds{
        {"Int64", Basic(DBUS_TYPE_INT64, dbus_int64_t{-1})},
        {"Uint64", Basic(DBUS_TYPE_UINT64, dbus_uint64_t{5})},
        {"Int16", Basic(DBUS_TYPE_INT16, dbus_int16_t{5})},
        {"Uint16", Basic(DBUS_TYPE_UINT16, dbus_uint16_t{5})},
        {"Byte", Basic(DBUS_TYPE_BYTE, static_cast<char>(5))},
        {"Double", Basic(DBUS_TYPE_DOUBLE, 1.5)},
        {"UnixFd", Basic(DBUS_TYPE_UNIX_FD, STDIN_FILENO)},
        {"ObjectPath", Basic(DBUS_TYPE_OBJECT_PATH, "/a")},
        {"Signature", Basic(DBUS_TYPE_SIGNATURE, "ay")},
        {"Variant", Container(DBUS_TYPE_VARIANT, "i", Int(1))},
        {"Struct", Container(DBUS_TYPE_STRUCT, nullptr, Int(1))},
        {"ArrayOfTexts", Container(DBUS_TYPE_ARRAY, "s", text)},
        {"ArrayOfInts", Container(DBUS_TYPE_ARRAY, "i", Int(1))},
        {"EmptyArrayOfTexts", Container(DBUS_TYPE_ARRAY, "s", [](DBusMessageIter*) {})},
    };
    kinds.insert(kinds.end(), more);
    return kinds;
}

/// @return the values as "i7", "stext" and "b3", which is the number of bytes
std::vector<std::string> Texts(const std::vector<CDbusValue>& values) {
    std::vector<std::string> texts;
    texts.reserve(values.size());
    for (const CDbusValue& value : values) {
        texts.push_back(value.type == DBUS_VALUE_INT ? "i" + std::to_string(value.nValue)
                        : value.type == DBUS_VALUE_STRING
                            ? "s" + value.strValue
                            : "b" + std::to_string(value.nBufferSize));
    }
    return texts;
}

std::vector<CDbusValue> Decode(const std::vector<Append>& body) {
    DBusMessage* pMessage = dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN);
    DBusMessageIter iterator;
    dbus_message_iter_init_append(pMessage, &iterator);
    for (const Append& append : body) {
        append(&iterator);
    }
    std::vector<CDbusValue> values;
    CPort port;
    EXPECT_EQ(port.MessageToList(pMessage, values), 1);
    dbus_message_unref(pMessage);
    return values;
}

/// @return the lowest free file descriptor
int FreeFd() {
    const int fd = dup(STDIN_FILENO);
    close(fd);
    return fd;
}

class CMalformedBodyTest : public CTableTest<CPlatformTest, Append> {
  protected:
    ~CMalformedBodyTest() override { EXPECT_EQ(FreeFd(), m_nFreeFd) << "a descriptor is open"; }

    const int m_nFreeFd = FreeFd();
};

class CDbusBodyTest : public CPlatformTest {};

class CNoIntTest : public CMalformedBodyTest {};

TEST_P(CNoIntTest, ReadsAsZeroWhereAnIntIsExpected) {
    const Append& wrong = Case();
    const Append zero = Int(0);
    const Append seven = Int(7);
    const std::pair<std::vector<Append>, std::string> bodies[] = {
        {{wrong, zero, seven}, "i7"},  // the index, which is ignored
        {{zero, wrong, seven}, "i7"},  // the type, of which 0 is an int
        {{zero, zero, wrong}, "i0"},   // the payload
    };
    for (auto [body, first] : bodies) {
        body.insert(body.end(), {zero, zero, Int(42)});
        EXPECT_THAT(Texts(Decode(body)), ElementsAre(first, "i42"));
    }
}

TEST_P(CNoIntTest, AddsNothingAtTheEndOfABody) {
    EXPECT_THAT(Texts(Decode({Int(0), Int(0), Int(7), Case()})), ElementsAre("i7"));
    EXPECT_THAT(Texts(Decode({Int(0), Int(0), Int(7), Int(1), Case()})), ElementsAre("i7"));
}

INSTANTIATE_TEST_SUITE_P(Of, CNoIntTest, testing::ValuesIn(UnexpectedKindsAnd({kText, kBytes})),
                         kByName);

// Some services answer with an unsigned or boolean status: each 32-bit basic value is an int.
TEST_F(CDbusBodyTest, UnsignedValueIsAnInt) {
    const Append seven = Basic(DBUS_TYPE_UINT32, dbus_uint32_t{7});
    const Append zero = Basic(DBUS_TYPE_UINT32, dbus_uint32_t{0});
    const Append largest = Basic(DBUS_TYPE_UINT32, dbus_uint32_t{UINT32_MAX});
    EXPECT_THAT(Texts(Decode({seven, zero, seven, zero, zero, largest})), ElementsAre("i7", "i-1"));
}

TEST_F(CDbusBodyTest, BooleanIsAnInt) {
    const Append yes = Basic(DBUS_TYPE_BOOLEAN, dbus_bool_t{1});
    const Append no = Basic(DBUS_TYPE_BOOLEAN, dbus_bool_t{0});
    EXPECT_THAT(Texts(Decode({no, no, yes, yes, yes, kText.data, no, no, no})),
                ElementsAre("i1", "stext", "i0"));
}

class CNoTextTest : public CMalformedBodyTest {};

TEST_P(CNoTextTest, ReadsAsAnEmptyTextAndIsTheNextIndex) {
    EXPECT_THAT(Texts(Decode({Int(0), Int(1), Case(), Int(0), Int(42)})), ElementsAre("s", "i42"));
    EXPECT_TRUE(LoggedAt(LOGSVC_ERROR, kTagUtil, "TYDbusPort.cpp",
                         "PopMessage<std::__cxx11::basic_string<char> >", 16,
                         "String should be in DBusMessage"));
}

INSTANTIATE_TEST_SUITE_P(Of, CNoTextTest,
                         testing::ValuesIn(UnexpectedKindsAnd({kInt, kUint32, kBoolean, kBytes})),
                         kByName);

class CNoBytesTest : public CMalformedBodyTest {};

TEST_P(CNoBytesTest, ReadsAsNoBytesAndIsTheNextIndex) {
    const auto values = Decode({Int(0), Int(2), Case(), Int(0), Int(42)});
    EXPECT_THAT(Texts(values), ElementsAre("b0", "i42"));
    EXPECT_NE(values.at(0).pBuffer, nullptr);
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTagUtil, "Array of bytes should be in DBusMessage"));
}

INSTANTIATE_TEST_SUITE_P(Of, CNoBytesTest,
                         testing::ValuesIn(UnexpectedKindsAnd({kInt, kUint32, kBoolean, kText})),
                         kByName);

TEST_F(CDbusBodyTest, TruncatedBodyGivesItsCompleteTriples) {
    const std::vector<Append> body{Int(0),     Int(0), Int(7), Int(1),     Int(1),
                                   kText.data, Int(2), Int(2), kBytes.data};
    const std::vector<std::string> expected{"i7", "stext", "b1"};
    for (std::size_t length = 0; length <= body.size(); ++length) {
        const auto values = Texts(Decode({body.begin(), body.begin() + static_cast<long>(length)}));
        EXPECT_EQ(values, std::vector<std::string>(
                              expected.begin(), expected.begin() + static_cast<long>(length / 3)));
    }
    EXPECT_EQ(m_Platform.Log().size(), 0U);
}

TEST_F(CDbusBodyTest, BodyOfThreeArgumentsGivesAtMostOneValue) {
    std::vector<Kind> kinds = UnexpectedKindsAnd({kUint32, kBoolean, kText, kBytes});
    for (const int type : {0, 1, 2, 9, -1}) {
        kinds.push_back({"Type", Int(type)});
    }
    for (const Kind& first : kinds) {
        for (const Kind& second : kinds) {
            for (const Kind& third : kinds) {
                const auto values = Decode({first.data, second.data, third.data});
                ASSERT_LE(values.size(), 1U) << first.name << second.name << third.name;
            }
        }
    }
}

TEST_F(CDbusBodyTest, UnknownTypeIsLoggedAndItsPayloadIsReadAsTheNextIndex) {
    for (const int type : {-1, 3, 4, 9, 256, INT32_MAX, INT32_MIN}) {
        m_Platform.ClearLog();
        EXPECT_THAT(Texts(Decode({Int(0), Int(type), kText.data, Int(0), Int(42)})),
                    ElementsAre("i42"));
        EXPECT_TRUE(LoggedAt(LOGSVC_ERROR, kTagUtil, "TYDbusPort.cpp", "MessageToList", 183,
                             "invalid type!"));
    }
}

}  // namespace
