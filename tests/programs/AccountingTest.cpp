// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "DaemonFixture.h"
#include "Program.h"

using testing::ElementsAre;

namespace {

/// Counts the records that a caller has sent. Each of them must be in the store or in the table
/// losses when the service has ended.
class Accounting : public CDaemonTest {
  protected:
    /// @return the arguments of a call with this many records of an application
    static Values BatchOf(const std::string& application, int records,
                          const std::string& url = "film.mp4") {
        TYMediaData record = MakeRecord(TY_EVENT_PLAYBACK_TIME);
        std::fill(std::begin(record.serviceID), std::end(record.serviceID), '\0');
        application.copy(record.serviceID, sizeof(record.serviceID) - 1);
        const std::string_view image = ImageOf(record);
        Values values(static_cast<std::size_t>(records) + 1,
                      receiver::Bytes(image.begin(), image.end()));
        values.front() = "SendData";
        values.insert(values.end(), static_cast<std::size_t>(records), url);
        return values;
    }

    std::string Send(const Values& call, int records) {
        m_nSent += records;
        return m_Caller.Call(call);
    }

    void Policy(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), {TALLYRA_COMMAND, "policy"});
        arguments.insert(arguments.end(), {"--db", m_File});
        ASSERT_EQ(RunProgram(arguments).code, 0);
    }

    /// Stops the service, so that it writes what it has counted.
    /// @return a row of reason, application and records for each kind of loss
    std::vector<std::string> Losses() {
        m_pDaemon->Terminate();
        return Column(
            "SELECT reason || ' ' || application || ' ' || sum(records) FROM losses "
            "GROUP BY reason, application ORDER BY reason, application");
    }

    void ExpectNothingUnseen() {
        EXPECT_EQ(Stored() + Number("SELECT total(records) FROM losses"), m_nSent);
    }

    std::int64_t m_nSent = 0;
};

TEST_F(Accounting, CountsWhatPoliciesRefuse) {
    Start();
    Policy({"set", "org.example.refused", "0"});
    Policy({"bind", "org.example.bound", "54321"});
    EXPECT_EQ(Send(BatchOf("org.example.app", 3), 3), kAccepted);
    EXPECT_EQ(Send(BatchOf("org.example.refused", 5), 5), kRefusedBatch);
    EXPECT_EQ(Send(BatchOf("org.example.bound", 7), 7), kRefusedBatch);
    EXPECT_THAT(Losses(),
                ElementsAre("binding org.example.bound 7", "policy org.example.refused 5"));
    EXPECT_EQ(Stored(), 3);
    ExpectNothingUnseen();
}

TEST_F(Accounting, CountsMalformedAndOversizedBatches) {
    Start();
    Values reversed = BatchOf("org.example.app", 2);
    std::reverse(reversed.begin() + 1, reversed.end());
    Values shortImage = BatchOf("org.example.app", 3);
    shortImage[3] = receiver::Bytes(4799, 0);
    EXPECT_EQ(Send(reversed, 2), kRefused);
    EXPECT_EQ(Send(shortImage, 3), kRefused);
    EXPECT_EQ(Send(BatchOf("org.example.app", 1, std::string(4 << 20, 'u')), 1), kRefused);
    EXPECT_EQ(Send(BatchOf("org.example.app", 1, std::string(200'000, 'u')), 1), kAccepted);
    const auto losses = Losses();
    EXPECT_EQ(Number("SELECT sum(records) FROM losses WHERE reason = 'bad_batch'"), 5);
    EXPECT_EQ(Number("SELECT sum(records) FROM losses WHERE reason = 'bytes'"), 1);
    ExpectNothingUnseen();
}

TEST_F(Accounting, CountsAFloodAndALockedStore) {
    Start({"--rate", "10"});
    for (int i = 0; i < 8; ++i) {
        Send(BatchOf("org.example.app", 36), 36);
    }
    EXPECT_GT(m_nSent, Stored());
    m_pDaemon->Terminate();
    ExpectNothingUnseen();
    Start({"--rate", "0"});
    {
        CTYDatabase other(m_File, CTYDatabase::Mode::READ_WRITE);
        const CTYTransaction lock(other);
        EXPECT_EQ(Send(BatchOf("org.example.app", 9), 9), kRefusedBatch);
    }
    Losses();
    EXPECT_EQ(Number("SELECT sum(records) FROM losses WHERE reason = 'full'"), 9);
    ExpectNothingUnseen();
}

TEST_F(Accounting, CountsWhatIsDroppedForRoomAndForgotten) {
    Start({"--max-size", "1", "--rate", "0"});
    for (int i = 0; i < 26; ++i) {
        ASSERT_EQ(Send(BatchOf("org.example.app" + std::to_string(i), 2,
                               std::string(60'000, static_cast<char>('a' + i))),
                       2),
                  kAccepted);
    }
    const std::string newest = "org.example.app25";
    EXPECT_EQ(
        RunProgram({TALLYRA_COMMAND, "forget", "--application", newest, "--yes", "--db", m_File})
            .code,
        0);
    Losses();
    EXPECT_EQ(Number("SELECT sum(records) FROM losses WHERE reason = 'forgotten'"), 2);
    EXPECT_GT(Number("SELECT sum(records) FROM losses WHERE reason = 'room'"), 0);
    ExpectNothingUnseen();
}

}  // namespace
