// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "HandlerFixture.h"

using testing::ElementsAre;
using testing::HasSubstr;

namespace {

constexpr const char* kPath = "/org/veltra/tv/tallyra/service";
constexpr const char* kInterface = "org.veltra.tv.tallyra.client";
constexpr const char* kInvalidArgs = "org.freedesktop.DBus.Error.InvalidArgs";

class Handler : public CHandlerTest {};

TEST_F(Handler, RefusesOtherObjectsInterfacesAndMethods) {
    EXPECT_EQ(Answer(CCall("/", kInterface, "TYCallFunction").TextValue("Kick").TextValue("Kick")),
              "org.freedesktop.DBus.Error.UnknownObject");
    EXPECT_EQ(Answer(CCall(kPath, "org.example.Other", "TYCallFunction")),
              "org.freedesktop.DBus.Error.UnknownInterface");
    EXPECT_EQ(Answer(CCall(kPath, kInterface, "TYDeleteAll")),
              "org.freedesktop.DBus.Error.UnknownMethod");
    EXPECT_THAT(Errors(), ElementsAre(HasSubstr(":1.1 (uid 1000, pid 42) called an unknown object, interface or method: "
                                                "TYCallFunction")));
}

TEST_F(Handler, TakesACallThatNamesNoInterface) {
    EXPECT_EQ(Answer(CCall(kPath, nullptr, "TYCallFunction").TextValue("Kick").TextValue("Kick")),
              "1");
}

TEST_F(Handler, AnswersNeitherRepliesNorErrorsNorSignals) {
    const CCall call = CCall::Of("Kick");
    const TYMessagePtr messages[] = {
        TYMessagePtr(dbus_message_new_method_return(call.Get())),
        TYMessagePtr(dbus_message_new_error(call.Get(), "org.example.E", "e")),
        TYMessagePtr(dbus_message_new_signal(kPath, kInterface, "S"))};
    for (const auto& pMessage : messages) {
        EXPECT_EQ(m_Handler.Handle(pMessage.get()), nullptr);
    }
}

TEST_F(Handler, AnswersNobodyWhoWantsNoReply) {
    EXPECT_EQ(Answer(CCall::Of("Kick").TextValue("Kick").WithoutReply()), "nothing");
    EXPECT_EQ(Answer(CCall("/", kInterface, "X").WithoutReply()), "nothing");
    EXPECT_EQ(Answer(CCall::Of("SendData").Record(MakeRecord(1)).TextValue("u").WithoutReply()),
              "nothing");
    EXPECT_EQ(Stored(), 1);
}

TEST_F(Handler, AnswersAKickWithItsStatusAlone) {
    EXPECT_EQ(Answer(CCall::Of("Kick").TextValue("Kick")), "1");
}

TEST_F(Handler, AnswersAPolicyRequestWithStatusAndPolicy) {
    EXPECT_EQ(Answer(CCall::Of("GetPolicyInfo").TextValue("org.example.app")), "1 1");
    CFileReader(m_File, CTYDatabase::Mode::READ_WRITE)
        .Execute("INSERT INTO policies VALUES('org.example.app', 0, 0), ('*', -9, 0)");
    EXPECT_EQ(Answer(CCall::Of("GetPolicyInfo").TextValue("org.example.app")), "1 0");
    EXPECT_EQ(Answer(CCall::Of("GetPolicyInfo").TextValue("other")), "1 -9");
    EXPECT_EQ(Answer(CCall::Of("GetPolicyInfo").TextValue("")), "1 -9");
}

TEST_F(Handler, AnswersAPolicyRequestWithAFailedStatusWhenPoliciesCannotBeRead) {
    CTYStoreKeeper closed(m_Folder.Path() / "none" / "t.db", {});
    CTYServiceHandler handler(closed, m_Peers);
    EXPECT_EQ(Answer(handler, CCall::Of("GetPolicyInfo").TextValue("app")), "0");
    EXPECT_EQ(Answer(handler, CCall::Of("Kick").TextValue("Kick")), "1");
}

TEST_F(Handler, RefusesFunctionsThatThereAreNot) {
    EXPECT_EQ(Answer(CCall::Of("Sing")), kInvalidArgs);
    EXPECT_EQ(Answer(CCall::Of("").TextValue("x")), kInvalidArgs);
    EXPECT_EQ(Answer(CCall::Of("senddata")), kInvalidArgs);
    EXPECT_THAT(Errors(), ElementsAre(HasSubstr("called an unknown function or passed wrong arguments: \"Sing\"")));
}

TEST_F(Handler, RefusesArgumentsThatAFunctionDoesNotTake) {
    EXPECT_EQ(Answer(CCall::Of("Kick")), kInvalidArgs);
    EXPECT_EQ(Answer(CCall::Of("Kick").IntValue(1)), kInvalidArgs);
    EXPECT_EQ(Answer(CCall::Of("Kick").TextValue("Kick").TextValue("Kick")), kInvalidArgs);
    EXPECT_EQ(Answer(CCall::Of("GetPolicyInfo")), kInvalidArgs);
    EXPECT_EQ(Answer(CCall::Of("GetPolicyInfo").IntValue(7)), kInvalidArgs);
    EXPECT_EQ(Answer(CCall::Of("GetPolicyInfo").Image("app")), kInvalidArgs);
}

TEST_F(Handler, RefusesBodiesThatAreNotMadeOfValues) {
    EXPECT_EQ(Answer(CCall()), kInvalidArgs);
    EXPECT_EQ(Answer(CCall().IntValue(1)), kInvalidArgs);
    EXPECT_EQ(Answer(CCall().Text("Kick")), kInvalidArgs);
    EXPECT_EQ(Answer(CCall::Of("Kick").Int(1)), kInvalidArgs);
    EXPECT_EQ(Answer(CCall::Of("Kick").Int(1).Int(1)), kInvalidArgs);
    EXPECT_EQ(Answer(CCall::Of("Kick").Text("x").Int(1).Text("x")), kInvalidArgs);
    EXPECT_EQ(Answer(CCall::Of("Kick").Int(1).Text("x").Text("x")), kInvalidArgs);
}

TEST_F(Handler, RefusesPayloadsThatAreNotOfTheirType) {
    EXPECT_EQ(Answer(CCall::Of("SendData").Int(1).Int(0).Text("x")), kInvalidArgs);
    EXPECT_EQ(Answer(CCall::Of("SendData").Int(1).Int(1).Int(5)), kInvalidArgs);
    EXPECT_EQ(Answer(CCall::Of("SendData").Int(1).Int(2).Text("x")), kInvalidArgs);
    EXPECT_EQ(Answer(CCall::Of("SendData").Int(1).Int(2).IntsArray()), kInvalidArgs);
    for (const int type : {3, 9, -1, INT32_MAX, INT32_MIN}) {
        EXPECT_EQ(Answer(CCall::Of("SendData").Int(1).Int(type).Int(1)), kInvalidArgs) << type;
    }
    EXPECT_THAT(Errors(), ElementsAre(HasSubstr("sent a malformed body")));
}

TEST_F(Handler, RefusesWhoFloodsItAndNobodyElse) {
    CTYPeers peers(Identify, 0.1);
    CTYServiceHandler handler(m_Keeper, peers);
    const auto kickFrom = [&](const char* pSender) {
        return Answer(handler, CCall::Of("Kick").TextValue("Kick").From(pSender));
    };
    EXPECT_EQ(kickFrom(":1.1"), "1");
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(kickFrom(":1.1"), "0");
    }
    EXPECT_EQ(kickFrom(":1.2"), "1");
    EXPECT_THAT(Errors(), ElementsAre(HasSubstr(":1.1 (uid 1000, pid 42) exceeds its rate limit")));
}

TEST_F(Handler, CountsTheRecordsOfABatchAgainstItsSender) {
    CTYPeers peers(Identify, 3.0 / 3600);
    CTYServiceHandler handler(m_Keeper, peers);
    CCall batch = CCall::Of("SendData");
    batch.Record(MakeRecord(1)).Record(MakeRecord(1)).TextValue("u").TextValue("u");
    EXPECT_EQ(Answer(handler, batch), "1 1");
    EXPECT_EQ(Answer(handler, batch), "0");
    EXPECT_EQ(Stored(), 2);
}

TEST_F(Handler, WithoutASenderStillAnswers) {
    EXPECT_EQ(Answer(CCall::Of("Kick").TextValue("Kick").From(nullptr)), "1");
}

}  // namespace
