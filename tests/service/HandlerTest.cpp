// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "HandlerFixture.h"

using testing::ElementsAre;
using testing::HasSubstr;

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
        EXPECT_EQ(m_Handler.Handle(pMessage.get()), nullptr);
    }
}

TEST_F(Handler, DoesNotAnswerACallThatWantsNoReply) {
    EXPECT_EQ(Answer(Kick().WithoutReply()), "nothing");
    EXPECT_EQ(Answer(CCall("/", kInterface, "X").WithoutReply()), "nothing");
    EXPECT_EQ(Answer(CCall::Batch(1, 1).WithoutReply()), "nothing");
    EXPECT_EQ(Stored(), 1);
}

TEST_F(Handler, AnswersGetPolicyInfoWithStatusAndPolicy) {
    EXPECT_EQ(Answer(Policy("org.example.app")), "1 1");
    Execute("INSERT INTO policies VALUES('org.example.app', 0, 0), ('*', -9, 0)");
    EXPECT_EQ(Answer(Policy("org.example.app")), "1 0");
    EXPECT_EQ(Answer(Policy("other")), "1 -9");
    EXPECT_EQ(Answer(Policy("")), "1 -9");
}

TEST_F(Handler, AnswersGetPolicyInfoWithStatusZeroWithoutAStore) {
    CTYStoreKeeper closed(m_Folder.Path() / "none" / "t.db", {});
    CTYServiceHandler handler(closed, m_Peers);
    EXPECT_EQ(Answer(handler, Policy("app")), "0");
    EXPECT_EQ(Answer(handler, Kick()), "1");
}

TEST_F(Handler, RefusesUnknownFunctionsAndWrongArguments) {
    ExpectInvalid({CCall::Of("Sing"), CCall::Of("").TextValue("x"), CCall::Of("senddata"),
                   CCall::Of("Kick"), CCall::Of("Kick").IntValue(1), Kick().TextValue("Kick"),
                   CCall::Of("GetPolicyInfo"), CCall::Of("GetPolicyInfo").IntValue(7),
                   CCall::Of("GetPolicyInfo").Image("app"), CCall().IntValue(1), CCall()});
    EXPECT_THAT(Errors(), ElementsAre(HasSubstr("called an unknown function or passed wrong "
                                                "arguments: \"Sing\"")));
}

TEST_F(Handler, HasNoFunctionThatGivesOrChangesRecords) {
    EXPECT_EQ(Answer(CCall::Batch(1, 1)), "1 1");
    for (const char* pFunction :
         {"GetData", "ReceiveData", "Query", "DeleteData", "SetPolicyInfo"}) {
        EXPECT_EQ(Answer(CCall::Of(pFunction).TextValue("p1")), kInvalidArgs) << pFunction;
    }
    EXPECT_EQ(Answer(Policy("p1' UNION SELECT event FROM records --")), "1 1");
    EXPECT_EQ(Answer(CCall(kPath, "org.freedesktop.DBus.Properties", "GetAll").Text(kInterface)),
              "org.freedesktop.DBus.Error.UnknownInterface");
    EXPECT_EQ(Stored(), 1);
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

TEST_F(Handler, RefusesAPeerThatExceedsItsRateAndNoOther) {
    CTYPeers peers(Identify, 0.1);
    CTYServiceHandler handler(m_Keeper, peers);
    EXPECT_EQ(Answer(handler, Kick()), "1");
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(Answer(handler, Kick()), "0");
    }
    EXPECT_EQ(Answer(handler, Kick().From(":1.2")), "1");
    EXPECT_THAT(Errors(), ElementsAre(HasSubstr(":1.1 (uid 1000, pid 42) exceeds its rate limit")));
}

TEST_F(Handler, ChargesEachRecordOfABatch) {
    CTYPeers peers(Identify, 3.0 / 3600);
    CTYServiceHandler handler(m_Keeper, peers);
    EXPECT_EQ(Answer(handler, CCall::Batch(2, 2)), "1 1");
    EXPECT_EQ(Answer(handler, CCall::Batch(2, 2)), "0");
    EXPECT_EQ(Stored(), 2);
}

}  // namespace
