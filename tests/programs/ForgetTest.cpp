// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "DaemonFixture.h"
#include "FaultyDisk.h"
#include "Program.h"
#include "Sanitizers.h"

namespace {

using testing::IsEmpty;

constexpr const char* kSecret = "SECRET";
constexpr const char* kPublic = "PUBLIC";

// Identifiers have the mark in lower case.
std::string Lower(std::string mark) {
    std::ranges::transform(mark, mark.begin(), &g_ascii_tolower);
    return mark;
}

// A record whose texts all contain the mark, of an application of that name.
TYMediaData MarkedRecord(const std::string& mark, int number) {
    TYMediaData record = MakeRecord(TY_EVENT_START, Lower(mark) + std::to_string(number));
    CopyText(record.serviceID, ("org." + Lower(mark)).c_str());
    CopyText(record.content.title, (mark + " title").c_str());
    CopyText(record.content.channelID, (mark + " channel").c_str());
    CopyText(record.content.genre, (mark + " genre").c_str());
    std::string custom;
    for (int i = 0; i < number % 300; ++i) {
        custom += mark;
    }
    CopyText(record.content.customInfo, custom.c_str());
    return record;
}

// From a few bytes up to some pages long.
std::string MarkedUrl(const std::string& mark, int number) {
    std::string url = "https://cdn.example";
    for (int i = 0; i <= number * number % 1000; ++i) {
        url += "/" + mark;
    }
    return url;
}

class CForgetTest : public CDaemonTest {
  protected:
    static constexpr int kPlaybacks = kWithSanitizersAllocator ? 120 : 200;
    // Of 120 records each, before the service starts.
    static constexpr int kBatches = kWithSanitizersAllocator ? 400 : 1200;

    static constexpr std::chrono::microseconds kLookPeriod{200};

    Result RunCommand(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), TALLYRA_COMMAND);
        arguments.insert(arguments.end(), {"--db", m_File});
        return RunProgram(arguments);
    }
    // Runs a command while the service stores records.
    Result RunWhileAdding(const std::vector<std::string>& arguments) {
        auto result = std::async(std::launch::async, [&] { return RunCommand(arguments); });
        int number = kPlaybacks;
        do {
            m_nRefused += Send(kPublic, number++) == kAccepted ? 0 : 1;
        } while (result.wait_for(std::chrono::seconds(0)) != std::future_status::ready);
        m_nStored = number - m_nRefused;
        return result.get();
    }
    std::string Send(const std::string& mark, int number) {
        const TYMediaData record = MarkedRecord(mark, number);
        const std::string_view image = ImageOf(record);
        return m_Caller.Call(
            {"SendData", receiver::Bytes(image.begin(), image.end()), MarkedUrl(mark, number)});
    }
    void SendBoth() {
        for (int i = 0; i < kPlaybacks; ++i) {
            EXPECT_EQ(Send(kSecret, i), kAccepted);
            EXPECT_EQ(Send(kPublic, i), kAccepted);
        }
    }
    // Stores batches of 120 records of fifty senders, before the service starts.
    static void StoreMuch(const std::string& file, int batches) {
        CTYStore store(file);
        const std::vector<TYMediaData> records(120, MarkedRecord(kSecret, 1));
        for (int i = 0; i < batches; ++i) {
            TYBatch batch = MakeBatch(records);
            batch.sender.name = ":2." + std::to_string(i % 50);
            batch.urls.assign(120, MarkedUrl(kSecret, i % 40));
            store.Add(batch);
        }
    }
    // The names of the store's files that contain the text.
    std::vector<std::string> FilesWith(const std::string& text) const {
        std::vector<std::string> names;
        for (const std::string suffix : {"", "-wal", "-shm"}) {
            if (ReadFile(m_File.string() + suffix).find(text) != std::string::npos) {
                names.push_back("tallyra.db" + suffix);
            }
        }
        return names;
    }
    // Only looks: gives the lock back.
    static bool CanLock(CTYDatabase& database) {
        try {
            database.Execute("BEGIN IMMEDIATE; ROLLBACK");
            return true;
        } catch (const CTYDatabaseError& error) {
            EXPECT_EQ(error.Kind(), SQLITE_BUSY) << error.what();
            return false;
        }
    }
    std::int64_t CountOf(const std::string& mark) const {
        return Number("SELECT count(*) FROM records WHERE service_id = 'org." + Lower(mark) + "'");
    }

    int m_nStored = 0;  ///< public records that the service has accepted
    int m_nRefused = 0;
};

using Forget = CForgetTest;

TEST_F(Forget, LeavesNoTextInTheFilesOfARunningService) {
    Start();
    SendBoth();
    ASSERT_THAT(FilesWith(kSecret), testing::Contains("tallyra.db-wal"));
    const Result result = RunWhileAdding({"forget", "--application", "org.secret", "--yes"});
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(result.out, "forgot " + std::to_string(kPlaybacks) + " records\n");
    EXPECT_THAT(FilesWith(kSecret), IsEmpty());
    EXPECT_THAT(FilesWith(kPublic), testing::Contains("tallyra.db"));
    EXPECT_EQ(m_nRefused, 0);
    EXPECT_EQ(CountOf(kPublic), m_nStored);
    EXPECT_EQ(RunCommand({"check"}).code, 0);
}

// Copies of rows that SQLite has moved lie in unused parts of pages. While the file is rewritten,
// the service may refuse batches.
TEST_F(Forget, LeavesNoByteOfWhatTheServiceDroppedEarlierAfterAVacuum) {
    Start({"--max-size", "1"});
    SendBoth();
    ASSERT_GT(Number("SELECT sum(records) FROM losses WHERE reason = 'room'"), 0);
    const Result result =
        RunWhileAdding({"forget", "--application", "org.secret", "--yes", "--vacuum"});
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_THAT(FilesWith(kSecret), IsEmpty());
    EXPECT_THAT(FilesWith(Lower(kSecret)), IsEmpty());
    EXPECT_THAT(FilesWith(kPublic), testing::Contains("tallyra.db"));
    EXPECT_EQ(RunCommand({"check"}).code, 0);
}

// SQLite does not queue writers. Without pauses, the service would find the lock held nearly
// always; in one transaction, all the time.
TEST_F(Forget, LeavesTheLockToSendersAgainAndAgain) {
    StoreMuch(m_File, kBatches);
    CTYDatabase sender(m_File, CTYDatabase::Mode::READ_WRITE);
    sender.WaitForLocks(0);
    auto result = std::async(std::launch::async, [&] {
        return RunCommand({"forget", "--application", "org.secret", "--yes"});
    });
    int held = 0;
    int turns = 0;
    int available = 0;  // in these turns
    for (int found = 0; result.wait_for(kLookPeriod) != std::future_status::ready;) {
        if (CanLock(sender)) {
            ++found;
        } else {
            turns += found > 0 && held > 0 ? 1 : 0;
            available += held > 0 ? found : 0;
            found = 0;
            ++held;
        }
    }
    EXPECT_GT(turns, 10);
    EXPECT_GT(available, held / 3);
    EXPECT_EQ(result.get().out, "forgot " + std::to_string(120 * kBatches) + " records\n");
}

TEST_F(Forget, NeedsLittleSpace) {
    CSmallDisk disk;
    if (!disk.Mount("16m")) {
        GTEST_SKIP() << "cannot mount";
    }
    const std::string file = disk.Path() / "t.db";
    StoreMuch(file, 200);
    disk.Fill(std::int64_t{1} << 20);
    EXPECT_EQ(RunProgram({TALLYRA_COMMAND, "forget", "--all", "--yes", "--db", file}).code, 0);
    EXPECT_EQ(ReadFile(file).find(kSecret), std::string::npos);
    EXPECT_EQ(RunProgram({TALLYRA_COMMAND, "check", "--db", file}).code, 0);
}

}  // namespace
