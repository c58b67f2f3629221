// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "BatchSender.h"
#include "Eventually.h"
#include "PrivateBus.h"
#include "Sanitizers.h"
#include "ServiceProcess.h"
#include "TYDatabase.h"
#include "Test.h"

#include <tallyra/ITYDataCollector.h>

#include <glib-unix.h>
#include <random>

namespace {

constexpr auto kFreeEvent = static_cast<TY_EVENT_TYPE>(99);
// A player reports some events, which the library sends at once, and later all others.
constexpr int kFirst = 20;
constexpr int kEvents = 150;

/// The collection service with a store, under load.
class CServiceStressTest : public testing::Test {
  protected:
    /// @return the number that script/stress chose, or the one of a short test
    static int Times(int usual) {
        const char* pTimes = std::getenv("TALLYRA_STRESS_TIMES");
        return pTimes == nullptr ? usual : std::atoi(pTimes);
    }

    std::unique_ptr<CServiceProcess> StartService() {
        return std::make_unique<CServiceProcess>(
            SERVICE, m_Bus.Address(),
            std::vector<std::string>{"--rate", "0", "--db", m_strDb, "--max-size", m_strMaxSize});
    }

    static void ExpectSound(CTYDatabase& database, std::int64_t records) {
        CTYStatement check(database, "PRAGMA integrity_check");
        EXPECT_TRUE(check.Step() && check.Text(0) == "ok");
        EXPECT_EQ(database.Number("SELECT count(*) FROM records"), records);
        EXPECT_EQ(database.Number("SELECT total(records) FROM playbacks"), records);
    }

    CTemporaryFolder m_Folder;
    const std::string m_strDb = m_Folder.Path() / "store.db";
    std::string m_strMaxSize = "65536";  ///< MiB
    CPrivateBus m_Bus;
};

/// A thread that sends batches of random sizes while the service is there. As the library does, it
/// never repeats a batch. Batches and their records are numbered from 0.
class CSender {
  public:
    struct Batch {
        int size;
        Answer answer;
    };

    /// @param accepted  counts the batches accepted from all senders
    CSender(const std::string& address, int number, std::atomic<int>& accepted)
        : m_strPlayback("sender-" + std::to_string(number)),
          m_nAccepted(accepted),
          m_Thread([this, address](const std::stop_token& stop) { Run(address, stop); }) {}

    void Stop() { m_Thread = {}; }

    // After Stop.
    const std::string& Playback() const { return m_strPlayback; }
    const std::vector<Batch>& Batches() const { return m_Batches; }

    /// @return how the audit's query describes a batch that is stored once and as it was sent
    std::string Stored(std::size_t batch) const {
        const std::string size = std::to_string(m_Batches[batch].size);
        const std::string url = " " + Url(batch);
        return size + " " + size + " 0 " + std::to_string(m_Batches[batch].size - 1) + url + url +
               " 0";
    }

  private:
    /// Every fourth batch has a URL of its own, the others share one.
    std::string Url(std::size_t batch) const {
        return m_strPlayback + "/" + (batch % 4 == 0 ? std::to_string(batch) : "all");
    }

    void Run(const std::string& address, const std::stop_token& stop) {
        CBatchSender bus(address);
        std::mt19937 random(std::random_device{}());
        while (!stop.stop_requested()) {
            if (bus.IsServed()) {
                Send(bus, std::uniform_int_distribution(1, kFullBatch)(random));
            } else {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
    }

    void Send(CBatchSender& bus, int size) {
        std::vector<TYMediaData> records(static_cast<std::size_t>(size),
                                         MakeRecord("org.example.stress", m_strPlayback));
        for (int i = 0; i < size; ++i) {
            TYMediaData& record = records[static_cast<std::size_t>(i)];
            record.event = static_cast<std::uint8_t>(1 + i % 10);
            record.param1 = static_cast<std::int32_t>(m_Batches.size());
            record.param2 = i;
        }
        const std::vector<std::string> urls(records.size(), Url(m_Batches.size()));
        const Answer answer = bus.Send(bus.MakeCall(records, urls).get());
        m_Batches.push_back({size, answer});
        m_nAccepted += answer == Answer::kAccepted ? 1 : 0;
    }

    const std::string m_strPlayback;
    std::atomic<int>& m_nAccepted;
    std::vector<Batch> m_Batches;
    // Last, since the thread uses the members above.
    std::jthread m_Thread;
};

/// A service that is killed at random moments and started again.
class CKilledServiceTest : public CServiceStressTest {
  protected:
    void StartSenders() {
        for (int i = 0; i < 4; ++i) {
            m_Senders.push_back(std::make_unique<CSender>(m_Bus.Address(), i, m_nAccepted));
        }
    }

    // One service of five is killed while it starts, the others while they store batches.
    void KillOnce() {
        const bool early = std::uniform_int_distribution(0, 4)(m_Random) == 0;
        const std::chrono::microseconds delay(
            std::uniform_int_distribution(0, early ? 20'000 : 60'000)(m_Random));
        const int before = m_nAccepted;
        const auto pService = StartService();
        if (!early) {
            pService->WaitUntilReady();
            ASSERT_TRUE(Eventually([&] { return m_nAccepted != before; }));
        }
        std::this_thread::sleep_for(delay);
        pService->Kill();
    }

    /// Starts the service once more, which recovers its write-ahead log, and stops everything.
    void StopAfterRecovery() {
        const auto pService = StartService();
        pService->WaitUntilReady();
        for (const auto& pSender : m_Senders) {
            pSender->Stop();
        }
        pService->Terminate();
    }

    /// Counts the answers. An accepted batch must be stored once, an unanswered one once or not at
    /// all, a refused one not at all; no batch in part.
    void Audit(const CSender& sender, CTYDatabase& database) {
        const std::set<std::size_t> stored = StoredBatches(sender, database);
        for (std::size_t batch = 0; batch < sender.Batches().size(); ++batch) {
            const Answer answer = sender.Batches()[batch].answer;
            ++m_Answers[answer];
            if (answer != Answer::NONE) {
                EXPECT_EQ(stored.contains(batch), answer == Answer::kAccepted) << "batch " << batch;
            }
        }
    }

    std::set<std::size_t> StoredBatches(const CSender& sender, CTYDatabase& database) {
        // How many records, how many different ones, and whether all have the batch's URL and their
        // number's event.
        CTYStatement row(database,
                         "SELECT param1, printf('%d %d %d %d %s %s %d', count(*), "
                         "count(DISTINCT param2), min(param2), max(param2), min(url), max(url), "
                         "sum(event != 1 + param2 % 10)), count(*) "
                         "FROM records WHERE playback_id = ? GROUP BY param1");
        std::set<std::size_t> stored;
        for (row.Begin(sender.Playback()); row.Step();) {
            const auto batch = static_cast<std::size_t>(row.Int(0));
            EXPECT_TRUE(batch < sender.Batches().size() && row.Text(1) == sender.Stored(batch))
                << "batch " << batch << ": " << row.Text(1);
            m_nRecords += row.Int(2);
            stored.insert(batch);
        }
        return stored;
    }

    std::mt19937 m_Random{std::random_device{}()};
    std::atomic<int> m_nAccepted = 0;
    std::vector<std::unique_ptr<CSender>> m_Senders;
    std::map<Answer, int> m_Answers;
    std::int64_t m_nRecords = 0;
};

TEST_F(CKilledServiceTest, StoresAcceptedBatchesOnceAndNoneInPart) {
    const int kills = Times(5);
    StartSenders();
    for (int i = 0; i < kills; ++i) {
        ASSERT_NO_FATAL_FAILURE(KillOnce());
    }
    StopAfterRecovery();
    CTYDatabase database(m_strDb, CTYDatabase::Mode::READ_ONLY);
    for (const auto& pSender : m_Senders) {
        SCOPED_TRACE(pSender->Playback());
        Audit(*pSender, database);
    }
    ExpectSound(database, m_nRecords);
    // The proof needs batches under way when the service was killed.
    EXPECT_GE(m_Answers[Answer::kAccepted], kills / 2);
    EXPECT_GT(m_Answers[Answer::NONE], 0);
}

/// A killed service that drops records for room, while an operator forgets one sender's.
class CPrunedServiceTest : public CKilledServiceTest {
  protected:
    CPrunedServiceTest() { m_strMaxSize = "1"; }

    // Every second command is killed as well, but not the last one: a killed command may leave
    // records whose texts it has blanked, for the next one to drop.
    void ForgetUntil(const std::stop_token& stop) const {
        std::mt19937 random(std::random_device{}());
        for (bool isLast = false; !isLast;) {
            isLast = stop.stop_requested();
            CChildProcess forget(
                {COMMAND, "forget", "--playback", "sender-0", "--yes", "--db", m_strDb},
                {.error = "/dev/null"});
            if (!isLast && random() % 2 == 0) {
                std::this_thread::sleep_for(std::chrono::microseconds(random() % 50'000));
                forget.Kill();
            } else {
                forget.WaitForExit(kPatience);
            }
        }
    }

    /// Adds up the records of the batches with this answer.
    std::int64_t Sum(Answer answer) const {
        std::int64_t sum = 0;
        for (const auto& pSender : m_Senders) {
            for (const CSender::Batch& batch : pSender->Batches()) {
                sum += batch.answer == answer ? batch.size : 0;
            }
        }
        return sum;
    }
};

TEST_F(CPrunedServiceTest, HasStoredOrCountedEachAcceptedRecordOnce) {
    const int kills = Times(5);
    StartSenders();
    {
        const std::jthread forgetter([this](const std::stop_token& stop) { ForgetUntil(stop); });
        for (int i = 0; i < kills; ++i) {
            ASSERT_NO_FATAL_FAILURE(KillOnce());
        }
    }
    StopAfterRecovery();
    CTYDatabase database(m_strDb, CTYDatabase::Mode::READ_ONLY);
    for (const auto& pSender : m_Senders) {
        StoredBatches(*pSender, database);
    }
    ExpectSound(database, m_nRecords);
    const std::int64_t dropped =
        database.Number("SELECT total(records) FROM losses WHERE reason IN ('room', 'forgotten')");
    EXPECT_GE(m_nRecords + dropped, Sum(Answer::kAccepted));
    EXPECT_LE(m_nRecords + dropped, Sum(Answer::kAccepted) + Sum(Answer::NONE));
    EXPECT_GT(dropped, 0);
}

// The program is its own player, see main.
void Play(const std::string& application, int fd) {
    const std::unique_ptr<ITYDataCollector> collector(
        GetTYDataCollectorInstance(application.c_str(), TY_PLAYER_NATIVE));
    std::string url = "https://video.example.org/" + application;
    CTYContentInfo info(&url, 0);
    info.SetTitle("Title of " + application);
    collector->SetContentInfo(&info);
    collector->SendMediaEvent(TY_EVENT_START, 0, 0);
    bool goes = false;
    const auto onGo = [](int, GIOCondition, gpointer pGoes) -> gboolean {
        *static_cast<bool*>(pGoes) = true;
        return G_SOURCE_REMOVE;
    };
    g_unix_fd_add(fd, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP), onGo, &goes);
    for (int i = 0; i < kEvents; ++i) {
        while (i == kFirst && !goes) {
            g_main_context_iteration(nullptr, TRUE);
        }
        collector->SendMediaEvent(kFreeEvent, i, -i);
    }
    collector->SendMediaEvent(TY_EVENT_STOP, 0, 0);
}

/// Players in processes of their own, each with the library and the platform as they ship.
class CPlayersTest : public CServiceStressTest {
  protected:
    CPlayersTest() {
        m_Folder.Write("regdb.ini", "[db/tallyra]\nlog_on=1\n");
        setenv("REGDB_FILE", (m_Folder.Path() / "regdb.ini").c_str(), 1);
        setenv("LOGSVC_OUTPUT", "stderr", 1);
        setenv("LOGSVC_LEVEL", "off", 0);
        m_Bus.BecomeSystemBus();
        EXPECT_EQ(pipe2(m_Go.data(), O_CLOEXEC), 0);
    }

    static std::string Application(int player) {
        return "org.example.player" + std::to_string(player);
    }

    void StartPlayers(int count) {
        for (int i = 0; i < count; ++i) {
            m_Players.push_back(std::make_unique<CChildProcess>(
                std::vector<std::string>{"/proc/self/exe", "play", Application(i),
                                         std::to_string(m_Go[0])},
                ChildOptions{.keepFds = {m_Go[0]}}));
        }
    }

    // A player's first records are stored once its library has found the service. The service owns
    // its name before its store exists.
    bool AreAllStored() const try {
        CTYDatabase database(m_strDb, CTYDatabase::Mode::READ_ONLY);
        return database.Number("SELECT count(DISTINCT service_id) FROM playbacks") ==
               std::ssize(m_Players);
    } catch (const CTYDatabaseError&) {
        return false;
    }

    void EndPlayers() {
        close(m_Go[1]);
        for (const auto& pPlayer : m_Players) {
            ASSERT_EQ(pPlayer->WaitForExit(2 * kPatience), 0);
        }
        close(m_Go[0]);
    }

    // The play time is the only value that cannot be predicted.
    static std::vector<std::string> Expected(const std::string& application) {
        const std::string content =
            " https://video.example.org/" + application + " Title of " + application;
        std::vector<std::string> lines{"1 0 0" + content};
        for (int i = 0; i < kEvents; ++i) {
            lines.push_back("99 " + std::to_string(i) + " " + std::to_string(-i) + content);
        }
        lines.insert(lines.end(), {"2 0 0" + content, "20 0 0" + content});
        return lines;
    }

    static std::vector<std::string> Stored(CTYDatabase& database, const std::string& application) {
        CTYStatement rows(database,
                          "SELECT event || ' ' || iif(event IN (2, 20), 0, param1) || ' ' || "
                          "iif(event = 20, 0, param2) || ' ' || url || ' ' || title FROM records "
                          "WHERE service_id = ? ORDER BY id");
        std::vector<std::string> lines;
        for (rows.Begin(application); rows.Step();) {
            lines.emplace_back(rows.Text(0));
        }
        return lines;
    }

    std::array<int, 2> m_Go{-1, -1};
    std::vector<std::unique_ptr<CChildProcess>> m_Players;
};

TEST_F(CPlayersTest, ManyAtOnceLoseNothing) {
    // Under a sanitizer, fifty lose batches to the reply timeout on a busy machine, by design.
    const int players = Times(kWithSanitizersAllocator ? 5 : 50);
    const auto pService = StartService();
    pService->WaitUntilReady();
    StartPlayers(players);
    ASSERT_TRUE(Eventually([this] { return AreAllStored(); }, 2 * kPatience));
    ASSERT_NO_FATAL_FAILURE(EndPlayers());
    pService->Terminate();
    CTYDatabase database(m_strDb, CTYDatabase::Mode::READ_ONLY);
    for (int i = 0; i < players; ++i) {
        EXPECT_EQ(Stored(database, Application(i)), Expected(Application(i)));
    }
    EXPECT_EQ(database.Number("SELECT count(*) FROM playbacks"), players);
    ExpectSound(database, std::int64_t{players} * (kEvents + 3));
}

}  // namespace

/// Usage: tallyra-stress-tests [GOOGLETEST-OPTION]... | play APPLICATION DESCRIPTOR
/// The second form is one player, which waits for end-of-file on the descriptor in its playback.
int main(int argc, char** argv) {
    if (argc == 4 && std::string_view(argv[1]) == "play") {
        Play(argv[2], std::atoi(argv[3]));
        return 0;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
