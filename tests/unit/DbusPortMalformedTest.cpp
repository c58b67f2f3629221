// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"
#include "TYDbusPort.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <functional>
#include <ostream>

using testing::ElementsAre;

namespace {

using Append = std::function<void(DBusMessageIter*)>;

/// A kind of argument that a body may hold where another one is due.
struct Kind {
    const char* name;
    Append append;
};

/// What a failing test calls its parameter.
void PrintTo(const Kind& kind, std::ostream* pStream) {
    *pStream << kind.name;
}

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

/// The kinds that are due nowhere.
std::vector<Kind> Strangers() {
    const Append text = kText.append;
    return {
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
}

std::vector<Kind> StrangersAnd(std::initializer_list<Kind> more) {
    std::vector<Kind> kinds = Strangers();
    kinds.insert(kinds.end(), more);
    return kinds;
}

/// The values as "i7", "stext" and "b3", the number of bytes.
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

class CMalformedBodyTest : public CPlatformTest, public testing::WithParamInterface<Kind> {
  protected:
    ~CMalformedBodyTest() override { EXPECT_EQ(FreeFd(), m_nFreeFd) << "a descriptor is left"; }

    static const Append& Wrong() { return GetParam().append; }

    const int m_nFreeFd = FreeFd();
};

std::string NameOf(const testing::TestParamInfo<Kind>& info) {
    return info.param.name;
}

class CDbusBodyTest : public CPlatformTest {};

class CNoIntTest : public CMalformedBodyTest {};

TEST_P(CNoIntTest, WhereTheIndexIsDueIsPassedOver) {
    EXPECT_THAT(Texts(Decode({Wrong(), Int(0), Int(7), Int(0), Int(0), Int(42)})),
                ElementsAre("i7", "i42"));
}

TEST_P(CNoIntTest, WhereTheTypeIsDueCountsAsTypeZero) {
    EXPECT_THAT(Texts(Decode({Int(0), Wrong(), Int(7), Int(0), Int(0), Int(42)})),
                ElementsAre("i7", "i42"));
}

TEST_P(CNoIntTest, WhereAnIntIsDueCountsAsZero) {
    EXPECT_THAT(Texts(Decode({Int(0), Int(0), Wrong(), Int(0), Int(0), Int(42)})),
                ElementsAre("i0", "i42"));
}

TEST_P(CNoIntTest, AtTheEndOfTheBodyAddsNothingOfItsOwn) {
    EXPECT_THAT(Texts(Decode({Int(0), Int(0), Int(7), Wrong()})), ElementsAre("i7"));
    EXPECT_THAT(Texts(Decode({Int(0), Int(0), Int(7), Int(1), Wrong()})), ElementsAre("i7"));
}

INSTANTIATE_TEST_SUITE_P(Of, CNoIntTest, testing::ValuesIn(StrangersAnd({kText, kBytes})), NameOf);

/// Services answer with their own idea of a status: each 32-bit basic value is an int.
TEST_F(CDbusBodyTest, UnsignedValueIsAnInt) {
    const Append seven = Basic(DBUS_TYPE_UINT32, dbus_uint32_t{7});
    const Append zero = Basic(DBUS_TYPE_UINT32, dbus_uint32_t{0});
    const Append largest = Basic(DBUS_TYPE_UINT32, dbus_uint32_t{UINT32_MAX});
    EXPECT_THAT(Texts(Decode({seven, zero, seven, zero, zero, largest})), ElementsAre("i7", "i-1"));
}

TEST_F(CDbusBodyTest, BooleanIsAnInt) {
    const Append yes = Basic(DBUS_TYPE_BOOLEAN, dbus_bool_t{1});
    const Append no = Basic(DBUS_TYPE_BOOLEAN, dbus_bool_t{0});
    EXPECT_THAT(Texts(Decode({no, no, yes, yes, yes, kText.append, no, no, no})),
                ElementsAre("i1", "stext", "i0"));
}

class CNoTextTest : public CMalformedBodyTest {};

TEST_P(CNoTextTest, WhereATextIsDueGivesAnEmptyOneAndIsTheNextIndex) {
    EXPECT_THAT(Texts(Decode({Int(0), Int(1), Wrong(), Int(0), Int(42)})), ElementsAre("s", "i42"));
    EXPECT_TRUE(LoggedAt(LOGSVC_ERROR, kTagUtil, "TYDbusPort.cpp",
                         "PopMessage<std::__cxx11::basic_string<char> >", 16,
                         "String should be in DBusMessage"));
}

INSTANTIATE_TEST_SUITE_P(Of, CNoTextTest,
                         testing::ValuesIn(StrangersAnd({kInt, kUint32, kBoolean, kBytes})),
                         NameOf);

class CNoBytesTest : public CMalformedBodyTest {};

TEST_P(CNoBytesTest, WhereBytesAreDueGivesNoneAndIsTheNextIndex) {
    const auto values = Decode({Int(0), Int(2), Wrong(), Int(0), Int(42)});
    EXPECT_THAT(Texts(values), ElementsAre("b0", "i42"));
    EXPECT_NE(values.at(0).pBuffer, nullptr);
    EXPECT_TRUE(Logged(LOGSVC_ERROR, kTagUtil, "Array of bytes should be in DBusMessage"));
}

INSTANTIATE_TEST_SUITE_P(Of, CNoBytesTest,
                         testing::ValuesIn(StrangersAnd({kInt, kUint32, kBoolean, kText})), NameOf);

TEST_F(CDbusBodyTest, EveryBeginningOfABodyGivesItsWholeTriples) {
    const std::vector<Append> body{Int(0),       Int(0), Int(7), Int(1),       Int(1),
                                   kText.append, Int(2), Int(2), kBytes.append};
    const std::vector<std::string> expected{"i7", "stext", "b1"};
    for (std::size_t length = 0; length <= body.size(); ++length) {
        const auto values = Texts(Decode({body.begin(), body.begin() + static_cast<long>(length)}));
        EXPECT_EQ(values, std::vector<std::string>(
                              expected.begin(), expected.begin() + static_cast<long>(length / 3)));
    }
    EXPECT_EQ(m_Platform.Log().size(), 0U);
}

TEST_F(CDbusBodyTest, EveryBodyOfThreeArgumentsGivesOneValueAtTheMost) {
    std::vector<Kind> kinds = StrangersAnd({kUint32, kBoolean, kText, kBytes});
    for (const int type : {0, 1, 2, 9, -1}) {
        kinds.push_back({"Type", Int(type)});
    }
    for (const Kind& first : kinds) {
        for (const Kind& second : kinds) {
            for (const Kind& third : kinds) {
                const auto values = Decode({first.append, second.append, third.append});
                ASSERT_LE(values.size(), 1U) << first.name << second.name << third.name;
            }
        }
    }
}

TEST_F(CDbusBodyTest, EveryTypeThatIsUnknownIsLogged) {
    for (const int type : {-1, 3, 4, 9, 256, INT32_MAX, INT32_MIN}) {
        m_Platform.ClearLog();
        EXPECT_THAT(Texts(Decode({Int(0), Int(type), kText.append, Int(0), Int(42)})),
                    ElementsAre("i42"));
        EXPECT_TRUE(LoggedAt(LOGSVC_ERROR, kTagUtil, "TYDbusPort.cpp", "MessageToList", 183,
                             "invalid type!"));
    }
}

}  // namespace
