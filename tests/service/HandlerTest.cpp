// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "ServiceFixture.h"

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr const char* kPath = "/org/veltra/tv/tallyra/service";
constexpr const char* kInterface = "org.veltra.tv.tallyra.client";
constexpr const char* kMethod = "TYCallFunction";
constexpr const char* kInvalidArgs = "org.freedesktop.DBus.Error.InvalidArgs";

class Handler : public CHandlerTest {
  protected:
    static CCall Kick() { return CCall::Of("Kick").TextValue("Kick"); }
    static CCall Policy(const char* pApplication) {
        return CCall::Of("GetPolicyInfo").TextValue(pApplication);
    }
    void ExpectInvalid(const std::vector<CCall>& calls) {
        for (std::size_t i = 0; i < calls.size(); ++i) {
            EXPECT_EQ(Answer(calls[i]), kInvalidArgs) << "call " << i;
        }
    }
};

TEST_F(Handler, RefusesUnknownObjectsInterfacesAndMethods) {
    EXPECT_EQ(Answer(CCall("/", kInterface, kMethod)), "org.freedesktop.DBus.Error.UnknownObject");
    EXPECT_EQ(Answer(CCall(kPath, "org.example.Other", kMethod)),
              "org.freedesktop.DBus.Error.UnknownInterface");
    EXPECT_EQ(Answer(CCall(kPath, "org.freedesktop.DBus.Properties", "GetAll").Text(kInterface)),
              "org.freedesktop.DBus.Error.UnknownInterface");
    EXPECT_EQ(Answer(CCall(kPath, kInterface, "TYDeleteAll")),
              "org.freedesktop.DBus.Error.UnknownMethod");
    EXPECT_THAT(Errors(), ElementsAre(HasSubstr(":1.1 (uid 1000, pid 42) called an unknown object, "
                                                "interface or method: TYCallFunction")));
}

TEST_F(Handler, AcceptsCallsWithoutInterfaceOrSender) {
    EXPECT_EQ(Answer(CCall(kPath, nullptr, kMethod).TextValue("Kick").TextValue("Kick")), "1");
    EXPECT_EQ(Answer(Kick()), "1");
    EXPECT_EQ(Answer(Kick().From(nullptr)), "1");
}

TEST_F(Handler, AnswersOnlyMethodCalls) {
    const CCall call = Kick();
    const TYMessagePtr messages[] = {
        TYMessagePtr(dbus_message_new_method_return(call.Get())),
        TYMessagePtr(dbus_message_new_error(call.Get(), "org.example.E", "e")),
        TYMessagePtr(dbus_message_new_signal(kPath, kInterface, "S"))};
    for (const auto& pMessage : messages) {
        dbus_message_set_serial(pMessage.get(), 1);
        Receive(m_Handler, pMessage.get());
        EXPECT_FALSE(m_Handler.Serve());
    }
    EXPECT_THAT(m_Replies, IsEmpty());
}

TEST_F(Handler, DoesNotAnswerACallThatWantsNoReply) {
    EXPECT_EQ(Answer(Kick().WithoutReply()), "nothing");
    EXPECT_EQ(Answer(CCall("/", kInterface, "X").WithoutReply()), "nothing");
    EXPECT_EQ(Answer(CCall::Batch(1, 1).WithoutReply()), "nothing");
    EXPECT_EQ(Stored(), 1);
}

TEST_F(Handler, AnswersGetPolicyInfoWithStatusAndPolicy) {
    EXPECT_EQ(Answer(Policy("org.example.app")), "1 1");
    Execute(
        "INSERT INTO policies(application, value, changed) "
        "VALUES('org.example.app', 0, 0), ('*', -9, 0)");
    EXPECT_EQ(Answer(Policy("org.example.app")), "1 0");
    EXPECT_EQ(Answer(Policy("other")), "1 -9");
    EXPECT_EQ(Answer(Policy("")), "1 -9");
    EXPECT_EQ(Answer(Policy("' UNION SELECT event FROM records --")), "1 -9");
}

TEST_F(Handler, RefusesUnknownFunctionsAndWrongArguments) {
    ExpectInvalid({CCall::Of("Sing"), CCall::Of("GetData").TextValue("p1"),
                   CCall::Of("DeleteData").TextValue("p1"), CCall::Of("SetPolicyInfo").IntValue(0),
                   CCall::Of("").TextValue("x"), CCall::Of("senddata"), CCall::Of("Kick"),
                   CCall::Of("Kick").IntValue(1), Kick().TextValue("Kick"),
                   CCall::Of("GetPolicyInfo"), CCall::Of("GetPolicyInfo").IntValue(7),
                   CCall::Of("GetPolicyInfo").Image("app"), CCall().IntValue(1), CCall()});
    EXPECT_THAT(Errors(), ElementsAre(HasSubstr("called an unknown function or passed wrong "
                                                "arguments: \"Sing\"")));
}

TEST_F(Handler, RefusesMalformedBodies) {
    const dbus_int32_t numbers[] = {1, 2, 3};
    ExpectInvalid(
        {CCall().Text("Kick"), CCall::Of("Kick").Int(1), CCall::Of("Kick").Int(1).Int(1),
         CCall::Of("Kick").Text("x").Int(1).Text("x"), CCall::Of("Kick").Int(1).Text("x").Text("x"),
         CCall::Of("SendData").Int(1).Int(0).Text("x"), CCall::Of("SendData").Int(1).Int(1).Int(5),
         CCall::Of("SendData").Int(1).Int(2).Text("x"),
         CCall::Of("SendData").Int(1).Int(2).Array(DBUS_TYPE_INT32, numbers, 3)});
    for (const int type : {3, 9, -1, INT32_MAX, INT32_MIN}) {
        EXPECT_EQ(Answer(CCall::Of("SendData").Int(1).Int(type).Int(1)), kInvalidArgs) << type;
    }
    EXPECT_THAT(Errors(), ElementsAre(HasSubstr("sent a malformed body")));
}

TEST_F(Handler, RefusesAUserWhoExceedsTheRateOnAnyConnectionAndNoOther) {
    CTYPeers peers(Identify, 0.1);
    CTYServiceHandler handler(m_Keeper, peers, m_Send);
    EXPECT_EQ(Answer(handler, Kick()), "1");
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(Answer(handler, Kick()), "0");
    }
    EXPECT_EQ(Answer(handler, Kick().From(":7.1")), "1");
    EXPECT_THAT(Errors(), ElementsAre(HasSubstr(":1.1 (uid 1000, pid 42) exceeds its rate limit")));
    EXPECT_EQ(Answer(handler, Kick().From(":1.2")), "0");
}

TEST_F(Handler, ChargesEachRecordOfABatch) {
    CTYPeers peers(Identify, 3.0 / 3600);
    CTYServiceHandler handler(m_Keeper, peers, m_Send);
    EXPECT_EQ(Answer(handler, CCall::Batch(2, 2)), "1 1");
    EXPECT_EQ(Answer(handler, CCall::Batch(2, 2)), "0");
    EXPECT_EQ(Stored(), 2);
}

using Batch = CHandlerTest;

/// What the handler makes of a SendData call.
struct Outcome {
    const char* pRule;
    CCall call;
    const char* pAnswer;
    std::vector<std::string> urls;  ///< of the records stored, "none" for null
    const char* pError = nullptr;   ///< in the error line; null for no line
};

std::vector<std::string> Urls(int count, int missing = 0) {
    std::vector<std::string> urls;
    for (int i = 0; i < count; ++i) {
        urls.push_back("url" + std::to_string(i));
    }
    urls.insert(urls.end(), static_cast<std::size_t>(missing), "none");
    return urls;
}

CCall WithOtherIndices() {
    const TYMediaData record = MakeRecord(TY_EVENT_START);
    CCall call;
    call.Int(7).Int(1).Text("SendData").Int(1000).Int(2);
    call.Bytes({reinterpret_cast<const char*>(&record), sizeof(record)});
    return call.Int(-1).Int(1).Text("url0");
}

CCall Single(const TYMediaData& record) {
    return CCall::Of("SendData").Record(record).TextValue("url0");
}

std::string LargestUrl() {
    return std::string(((1U << 20) - 8) / 36, 'u');
}

CCall LargestBatch() {
    CCall call = CCall::Batch(36, 0);
    for (int i = 0; i < 36; ++i) {
        call.TextValue(LargestUrl());
    }
    return call;
}

std::vector<Outcome> Outcomes() {
    const char* pCount = "sent a different number of URLs than records";
    const char* pOrder = "a batch that is not images followed by URLs";
    const char* pSize = "sent an image of the wrong size: ";
    const TYMediaData start = MakeRecord(TY_EVENT_START);
    // With the image and the text "SendData".
    const std::string tooLarge(CTYServiceHandler::kMaxCallBytes - 4800 - 8 + 1, 'u');
    const std::string image(4800, 'x');
    CCall unterminated = CCall::Of("SendData").Image(image).Image(image);
    std::vector<Outcome> outcomes = {
        {"empty", CCall::Batch(0, 0), "1 1", {}},
        {"as large as the library sends", CCall::Batch(36, 36), "1 1", Urls(36)},
        {"as large as a signature allows", CCall::Batch(62, 0), "1 1", Urls(0, 62), pCount},
        {"fewer URLs", CCall::Batch(3, 1), "1 1", Urls(1, 2), pCount},
        {"more URLs", CCall::Batch(1, 3), "1 1", Urls(1), pCount},
        {"only URLs", CCall::Batch(0, 5), "1 1", {}, pCount},
        {"a number behind", CCall::Batch(1, 1).IntValue(1), "0", {}, pOrder},
        {"a number first", CCall::Of("SendData").IntValue(1).Record(start), "0", {}, pOrder},
        {"a URL first", CCall::Of("SendData").TextValue("u").Record(start), "0", {}, pOrder},
        {"1 MiB of URLs", LargestBatch(), "1 1", std::vector(36, LargestUrl())},
        {"more", CCall::Batch(1, 0).TextValue(tooLarge), "0", {}, "a batch that is too large: "},
        {"other indices", WithOtherIndices(), "1 1", Urls(1)},
        {"unterminated strings", unterminated.TextValue("url0").TextValue("url1"), "1 1", Urls(2),
         "sent an unterminated string"},
        {"an identifier that fills its field",
         Single(MakeRecord(TY_EVENT_START, std::string(25, 'p'))), "1 1", Urls(1)},
    };
    for (const std::size_t size : {0, 1, 4799, 4801, 9600}) {
        CCall call = CCall::Batch(1, 0).Image(std::string(size, 'x'));
        outcomes.push_back(
            {"an image of the wrong size", call.TextValue("a").TextValue("b"), "0", {}, pSize});
    }
    return outcomes;
}

TEST_F(Batch, IsStoredWholeOrRefused) {
    ASSERT_TRUE(m_Keeper.Open());
    int peer = 0;
    for (Outcome& outcome : Outcomes()) {
        SCOPED_TRACE(outcome.pRule);
        // Each from a peer of its own, whose misbehaviour was not logged yet.
        const std::string name = ":2." + std::to_string(++peer);
        m_Platform.ClearLog();
        EXPECT_EQ(Answer(outcome.call.From(name.c_str())), outcome.pAnswer);
        EXPECT_THAT(Column("SELECT coalesce(url, 'none') FROM records WHERE bus_name = '" + name +
                           "' ORDER BY id"),
                    ElementsAreArray(outcome.urls));
        EXPECT_EQ(Errors().size(), outcome.pError != nullptr ? 1U : 0U);
        for (const std::string& line : Errors()) {
            EXPECT_THAT(line, HasSubstr(outcome.pError != nullptr ? outcome.pError : "no line"));
        }
    }
}

bool IsKnownCode(int code) {
    return (code >= TY_EVENT_START && code <= TY_EVENT_SEEK_COMPLETE) ||
           (code >= TY_EVENT_PLAYING_TIME && code <= TY_EVENT_BUFFERING_TIME) ||
           code == TY_EVENT_RENDITION || code == TY_EVENT_DROPPED_FRAMES ||
           (code >= TY_ERROR_URL_CHANGED && code <= TY_ERROR_DUPLICATED_RENDER_START) ||
           (code >= TY_ERROR_ACCESS_DENIED && code <= TY_ERROR_PLAYER_FAILED);
}

TEST_F(Batch, LogsUnknownEventCodesOnceAndStoresThem) {
    for (int code = 0; code <= 255; ++code) {
        SCOPED_TRACE(code);
        CTYPeers peers(Identify, 0);
        CTYServiceHandler handler(m_Keeper, peers, m_Send);
        EXPECT_EQ(Answer(handler, Single(MakeRecord(code))), "1 1");
        m_Platform.ClearLog();
        EXPECT_EQ(Answer(handler, Single(MakeRecord(code)).From(":1.2")), "1 1");
        EXPECT_EQ(Answer(handler, Single(MakeRecord(code)).From(":1.2")), "1 1");
        const auto lines = Lines();
        EXPECT_EQ(lines.size(), IsKnownCode(code) ? 0U : 1U);
        for (const std::string& line : lines) {
            EXPECT_THAT(line, HasSubstr(":1.2 (uid 1000, pid 42) sent an unknown event code: " +
                                        std::to_string(code) + " ("));
        }
        EXPECT_THAT(Errors(), IsEmpty());
    }
    EXPECT_EQ(Stored(), 3 * 256);
}

TEST_F(Batch, IsAcceptedWithoutBeingStoredWithDiscard) {
    CTYServiceHandler handler(m_Keeper, m_Peers, m_Send, {.discard = true});
    ASSERT_TRUE(m_Keeper.Open());
    EXPECT_EQ(Answer(handler, CCall::Batch(2, 2)), "1 1");
    EXPECT_EQ(Answer(handler, CCall::Of("SendData").Image("short")), "0");
    EXPECT_EQ(Stored(), 0);
}

}  // namespace
