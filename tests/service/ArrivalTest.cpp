// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "ServiceFixture.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

/// What becomes of records on their way into the store.
class Arrival : public CHandlerTest {
  protected:
    void SetUp() override { ASSERT_TRUE(m_Keeper.Open()); }

    /// @return a batch with one record for each application
    static CCall From(const std::vector<const char*>& applications) {
        CCall call = CCall::Of("SendData");
        for (const char* pApplication : applications) {
            TYMediaData record = MakeRecord(TY_EVENT_START);
            CopyText(record.serviceID, pApplication);
            call.Record(record);
        }
        for (const char* pApplication : applications) {
            call.TextValue(pApplication);
        }
        return call;
    }
    static CCall Kick() { return CCall::Of("Kick").TextValue("Kick"); }
    std::vector<std::string> StoredUrls() { return Column("SELECT url FROM records ORDER BY id"); }
};

TEST_F(Arrival, DropsRecordsOfARefusedApplicationFromTheMomentItIsRefused) {
    EXPECT_EQ(Answer(From({"a"})), "1 1");
    Execute("INSERT INTO policies(application, value, changed) VALUES('a', 0, 0)");
    EXPECT_EQ(Answer(From({"a", "a"})), "1 0");
    EXPECT_EQ(Answer(From({"a", "b", "a", "c"})), "1 1");
    EXPECT_THAT(StoredUrls(), ElementsAre("a", "b", "c"));
    EXPECT_THAT(Losses(), ElementsAre("policy a 4"));
    EXPECT_THAT(Errors(), ElementsAre(HasSubstr("sent records that the policy refuses")));
}

TEST_F(Arrival, DropsRecordsOfEveryApplicationWithoutAPolicyWhereAllAreRefused) {
    Execute("INSERT INTO policies(application, value, changed) VALUES('*', 0, 0), ('b', 1, 0)");
    EXPECT_EQ(Answer(From({"a", "b"})), "1 1");
    EXPECT_THAT(StoredUrls(), ElementsAre("b"));
    EXPECT_THAT(Losses(), ElementsAre("policy a 1"));
}

TEST_F(Arrival, DropsRecordsOfAnApplicationThatIsBoundToOtherUsers) {
    Execute("INSERT INTO bindings(application, uid, changed) VALUES('a', 7, 0)");
    EXPECT_EQ(Answer(From({"a"})), "1 0");
    EXPECT_EQ(Answer(From({"a"}).From(":7.1")), "1 1");
    EXPECT_EQ(Answer(From({"b"})), "1 1");
    const CCall policy = CCall::Of("GetPolicyInfo").TextValue("a");
    EXPECT_EQ(Answer(policy), "1 0");
    EXPECT_EQ(Answer(CCall(policy).From(":7.1")), "1 1");
    EXPECT_EQ(Answer(CCall(policy).From(":0.1")), "1 0");
    EXPECT_THAT(Column("SELECT service_id || uid FROM records ORDER BY id"),
                ElementsAre("a7", "b1000"));
    EXPECT_THAT(Losses(), ElementsAre("binding a 1"));
}

TEST_F(Arrival, StoresNothingOfASenderWhomTheBusDoesNotKnow) {
    EXPECT_EQ(Answer(Kick().From(":0.1")), "1");
    EXPECT_EQ(Answer(CCall::Of("GetPolicyInfo").TextValue("a").From(":0.1")), "1 1");
    EXPECT_EQ(Answer(From({"a", "b"}).From(":0.1")), "1 0");
    EXPECT_EQ(Stored(), 0);
    EXPECT_THAT(Losses(), ElementsAre("sender a 2"));
    EXPECT_THAT(Errors(), ElementsAre(HasSubstr("the bus does not know its user")));
}

CCall WithSecrets() {
    TYMediaData record = MakeRecord(TY_EVENT_START);
    CopyText(record.content.customInfo, R"({"ads":"https://u:p@ads/?id=secret"})");
    return CCall::Of("SendData").Record(record).TextValue("https://u:p@h/film?token=secret#t=30");
}

TEST_F(Arrival, RedactsUrlsInTheRecordAndNextToIt) {
    EXPECT_EQ(Answer(WithSecrets()), "1 1");
    EXPECT_THAT(StoredUrls(), ElementsAre("https://*@h/film?token=*#t=*"));
    EXPECT_THAT(Column("SELECT custom_info FROM records"),
                ElementsAre(R"({"ads":"https://*@ads/?id=*"})"));
    for (const auto& file : std::filesystem::directory_iterator(m_Folder.Path())) {
        EXPECT_THAT(m_Folder.Read(file.path().filename()), testing::Not(HasSubstr("secret")));
    }
}

TEST_F(Arrival, KeepsUrlsOfAllApplicationsOrOfOneWhereToldTo) {
    CTYServiceHandler keeping(m_Keeper, m_Peers, m_Send, {.keepQueries = true});
    EXPECT_EQ(Answer(keeping, WithSecrets()), "1 1");
    Execute(
        "INSERT INTO policies(application, value, changed, keep_queries) "
        "VALUES('org.example.app', 1, 0, 1)");
    EXPECT_EQ(Answer(WithSecrets()), "1 1");
    const char* pUrl = "https://u:p@h/film?token=secret#t=30";
    EXPECT_THAT(StoredUrls(), ElementsAre(pUrl, pUrl));
}

/// A refused batch and how it is counted.
struct Refusal {
    const char* pRule;
    CCall call;
    const char* pLoss;
};

CCall MuchText() {
    CCall call = CCall::Batch(2, 1);
    call.TextValue(std::string(CTYServiceHandler::kMaxCallBytes, 'u'));
    return call;
}

TEST_F(Arrival, CountsTheRecordsOfABatchThatItRefuses) {
    const Refusal refusals[] = {
        {"too large", MuchText(), "bytes org.example.app 2"},
        {"a wrong order", CCall::Batch(3, 1).IntValue(1), "bad_batch org.example.app 3"},
        {"a short image first", CCall::Of("SendData").Image("x"), "bad_batch  1"},
        {"a short image", CCall::Batch(1, 0).Image("x"), "bad_batch org.example.app 2"},
        {"a malformed body", CCall::Batch(2, 2).Int(1), "bad_batch org.example.app 2"},
        {"another type", CCall::Batch(1, 0).Array(DBUS_TYPE_INT32, "\0\0\0", 1),
         "bad_batch org.example.app 1"},
    };
    for (const Refusal& refusal : refusals) {
        EXPECT_NE(Answer(refusal.call), "1 1") << refusal.pRule;
        m_Handler.Serve();
        EXPECT_THAT(Losses(), ElementsAre(refusal.pLoss)) << refusal.pRule;
        Execute("DELETE FROM losses");
    }
    EXPECT_EQ(Stored(), 0);
}

TEST_F(Arrival, CountsTheRecordsOverALimit) {
    CTYPeers peers(Identify, 1);
    CTYServiceHandler handler(m_Keeper, peers, m_Send);
    EXPECT_EQ(Answer(handler, CCall::Batch(1, 0).TextValue(std::string(1U << 20, 'u'))), "1 1");
    EXPECT_EQ(Answer(handler, CCall::Batch(2, 0)), "0");
    EXPECT_EQ(Answer(handler, CCall::Batch(10, 0).From(":7.1")), "1 1");
    EXPECT_EQ(Answer(handler, CCall::Batch(3, 0).From(":7.2")), "0");
    EXPECT_EQ(Answer(handler, Kick()), "0");
    EXPECT_THAT(Losses(), ElementsAre("bytes org.example.app 2", "rate org.example.app 3"));
}

TEST_F(Arrival, CountsRecordsThatCannotBeStored) {
    CFileReader other(m_File, CTYDatabase::Mode::READ_WRITE);
    other.Execute("BEGIN IMMEDIATE");
    EXPECT_EQ(Answer(From({"a", "b"})), "1 0");
    other.Execute("ROLLBACK");
    EXPECT_THAT(Losses(), ElementsAre("full a 1", "full b 1"));
}

TEST_F(Arrival, AnswersKickOnArrivalAndPoliciesBeforeBatches) {
    for (int i = 0; i < 3; ++i) {
        Receive(m_Handler, CCall::Batch(1, 1).From(":1.1"));
    }
    Receive(m_Handler, CCall::Of("GetPolicyInfo").TextValue("a").From(":1.1"));
    Receive(m_Handler, CCall::Batch(1, 1).From(":7.1"));
    Receive(m_Handler, Kick().From(":1.1"));
    EXPECT_THAT(m_Replies, ElementsAre("1"));
    EXPECT_TRUE(m_Handler.Serve());
    EXPECT_THAT(m_Replies, ElementsAre("1", "1 1"));
    EXPECT_EQ(Stored(), 0);
    EXPECT_TRUE(m_Handler.Serve());
    EXPECT_EQ(Column("SELECT bus_name FROM records"), std::vector<std::string>{":7.1"});
    ServeAll(m_Handler);
    EXPECT_EQ(Stored(), 4);
}

TEST_F(Arrival, DropsCallsOfThePeerThatFillsTheMemoryAndCountsThem) {
    CTYServiceHandler handler(m_Keeper, m_Peers, m_Send, {.queueBytes = 100'000});
    Receive(handler, From({"good"}).From(":7.1"));
    for (int i = 0; i < 30; ++i) {
        Receive(handler, From({"flood"}));
    }
    const auto dropped = std::ranges::count(m_Replies, "0");
    EXPECT_GT(dropped, 10);
    ServeAll(handler);
    EXPECT_EQ(std::ranges::count(m_Replies, "1 1"), 31 - dropped);
    EXPECT_EQ(Stored(), 31 - dropped);
    EXPECT_EQ(Number("SELECT count(*) FROM records WHERE service_id = 'good'"), 1);
    EXPECT_THAT(Losses(), ElementsAre("busy flood " + std::to_string(dropped)));
    EXPECT_THAT(Errors(), ElementsAre(HasSubstr(":1.1 (uid 1000, pid 42) sent more than fits")));
}

TEST_F(Arrival, AnswersEachCallOnceWhateverBecomesOfIt) {
    CTYPeers peers(Identify, 2);
    CTYServiceHandler handler(m_Keeper, peers, m_Send, {.queueBytes = 20'000});
    const CCall calls[] = {Kick(),
                           CCall::Batch(1, 1),
                           CCall::Batch(36, 36),
                           MuchText(),
                           CCall().Int(1),
                           CCall::Of("Sing"),
                           CCall::Of("SendData").Image("x"),
                           CCall::Batch(1, 1).From(":0.1")};
    int sent = 0;
    for (int round = 0; round < 10; ++round) {
        for (const CCall& call : calls) {
            Receive(handler, CCall(call));
            Receive(handler, CCall(call).From(":7.1"));
            Receive(handler, CCall(call).WithoutReply());
            sent += 2;
        }
        if (round % 3 == 0) {
            ServeAll(handler);
        }
    }
    ServeAll(handler);
    EXPECT_EQ(std::ssize(m_Replies), sent);
}

}  // namespace
