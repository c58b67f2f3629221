// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The program "tallyra-stress-kills": kills the collection service repeatedly under load and
// compares what the service accepted with what it stored.

#include "BatchSender.h"
#include "Eventually.h"
#include "PrivateBus.h"
#include "ServiceProcess.h"
#include "TYDatabase.h"
#include "TemporaryFolder.h"

#include <CLI/CLI.hpp>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <thread>

namespace {

struct Settings {
    std::string service;
    std::string folder;
    int kills = 200;
    int senders = 4;
    unsigned seed = std::random_device()();
};

/// A batch that was sent, and its answer.
struct SentBatch {
    int size;
    Answer answer;
};

/// What one sender sent. Batches and their records are numbered from 0, so that every record of all
/// senders is unique.
struct Account {
    int sender;
    std::vector<SentBatch> batches;

    std::string Playback() const { return "sender-" + std::to_string(sender); }

    /// Every fourth batch has a URL of its own, the others share one.
    std::string Url(std::size_t batch) const {
        return Playback() + "/" + (batch % 4 == 0 ? std::to_string(batch) : "all");
    }

    /// @return the records of a batch; their parameters are the batch's and the record's number
    std::vector<TYMediaData> Records(std::size_t batch, int size) const {
        TYMediaData record = MakeRecord("org.example.stress", Playback());
        std::vector<TYMediaData> records;
        for (int i = 0; i < size; ++i) {
            record.event = static_cast<std::uint8_t>(1 + i % 10);
            record.param1 = static_cast<std::int32_t>(batch);
            record.param2 = i;
            records.push_back(record);
        }
        return records;
    }
};

/// Compares what was sent with the store. An accepted batch must be there once, an unanswered one
/// once or not at all, a refused one not at all; no batch in part, and nothing else.
class CAudit {
  public:
    CAudit(const std::vector<Account>& accounts, const std::string& db)
        : m_Database(db, CTYDatabase::Mode::READ_ONLY) {
        for (const Account& account : accounts) {
            Judge(account);
        }
        CTYStatement check(m_Database, "PRAGMA integrity_check");
        Check(check.Step() && check.Text(0) == "ok", "the database has lost its integrity");
        const std::int64_t all = m_Database.Number("SELECT count(*) FROM records");
        Check(all == records, "some stored records are no sender's");
        Check(m_Database.Number("SELECT total(records) FROM playbacks") == all,
              "the playbacks' totals differ from their records");
    }

    std::map<Answer, std::int64_t> batches;
    std::int64_t unansweredKept = 0;  ///< batches in the store
    std::int64_t records = 0;
    std::int64_t faults = 0;

  private:
    // Prints the first faults.
    void Check(bool holds, const std::string& fault) {
        constexpr int kFaultsPrinted = 20;
        if (!holds && ++faults <= kFaultsPrinted) {
            std::printf("FAULT %s\n", fault.c_str());
        }
    }

    void Judge(const Account& account) {
        const std::set<std::size_t> stored = StoredBatches(account);
        for (std::size_t batch = 0; batch < account.batches.size(); ++batch) {
            const Answer answer = account.batches[batch].answer;
            const bool isStored = stored.contains(batch);
            const std::string place = account.Playback() + " batch " + std::to_string(batch);
            ++batches[answer];
            unansweredKept += answer == Answer::NONE && isStored ? 1 : 0;
            Check(answer != Answer::kAccepted || isStored, place + " was accepted and is lost");
            Check(answer != Answer::kRefused || !isStored, place + " was refused and is stored");
        }
    }

    /// @return the batches in the store; those stored in part, twice or changed are faults
    std::set<std::size_t> StoredBatches(const Account& account) {
        // How many records, how many different ones, and whether all have the batch's URL and their
        // number's event.
        CTYStatement row(m_Database,
                         "SELECT param1, count(*), count(DISTINCT param2), min(param2), "
                         "max(param2), min(url), max(url), sum(event != 1 + param2 % 10) "
                         "FROM records WHERE playback_id = ? GROUP BY param1");
        std::set<std::size_t> stored;
        const std::string playback = account.Playback();
        row.Begin(playback);
        while (row.Step()) {
            const auto batch = static_cast<std::size_t>(row.Int(0));
            records += row.Int(1);
            Check(batch < account.batches.size() && IsWhole(account, batch, row),
                  playback + " batch " + std::to_string(batch) +
                      " was never sent, or is stored in part, twice or changed");
            stored.insert(batch);
        }
        return stored;
    }

    /// @return whether a row has every record of the batch once, as it was sent
    static bool IsWhole(const Account& account, std::size_t batch, const CTYStatement& row) {
        const std::int64_t size = account.batches[batch].size;
        const std::string url = account.Url(batch);
        return row.Int(1) == size && row.Int(2) == size && row.Int(3) == 0 &&
               row.Int(4) == size - 1 && row.Text(5) == url && row.Text(6) == url &&
               row.Int(7) == 0;
    }

    CTYDatabase m_Database;
};

/// A thread that sends batches of random sizes. As the library does, it never repeats a batch.
class CSender {
  public:
    /// @param accepted  counts the batches accepted from all senders
    CSender(const std::string& address, int number, unsigned seed,
            std::atomic<std::int64_t>& accepted)
        : m_Account{number, {}},
          m_Random(seed),
          m_nAccepted(accepted),
          m_Thread([this, address](const std::stop_token& stop) { Run(address, stop); }) {}

    /// Ends the thread.
    void Stop() { m_Thread = {}; }

    /// @return what it sent; call after Stop
    const Account& Sent() const { return m_Account; }

  private:
    void Run(const std::string& address, const std::stop_token& stop) {
        CBatchSender bus(address);
        while (!stop.stop_requested()) {
            if (bus.IsServed()) {
                SendOne(bus);
            } else {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
    }

    void SendOne(CBatchSender& bus) {
        const std::size_t number = m_Account.batches.size();
        const int size = std::uniform_int_distribution(1, kFullBatch)(m_Random);
        const auto count = static_cast<std::size_t>(size);
        const auto call = bus.MakeCall(m_Account.Records(number, size),
                                       std::vector<std::string>(count, m_Account.Url(number)));
        const Answer answer = bus.Send(call.get());
        m_Account.batches.push_back({size, answer});
        m_nAccepted += answer == Answer::kAccepted ? 1 : 0;
    }

    Account m_Account;
    std::mt19937 m_Random;
    std::atomic<std::int64_t>& m_nAccepted;
    // Last, since the thread uses the members above.
    std::jthread m_Thread;
};

class CKills {
  public:
    explicit CKills(const Settings& settings)
        : m_Settings(settings),
          m_strDb((settings.folder.empty() ? m_Folder.Path().string() : settings.folder) +
                  "/kills.db"),
          m_Random(settings.seed) {
        // An earlier run may have left its database.
        for (const char* pSuffix : {"", "-wal", "-shm"}) {
            std::filesystem::remove(m_strDb + pSuffix);
        }
    }

    int Run() {
        std::printf("seed %u\n", m_Settings.seed);
        StartSenders();
        for (int i = 0; i < m_Settings.kills; ++i) {
            KillOnce();
        }
        // This start recovers the write-ahead log.
        CServiceProcess service(m_Settings.service, m_Bus.Address(), Options());
        service.WaitUntilReady();
        for (auto& pSender : m_Senders) {
            pSender->Stop();
        }
        service.Terminate();
        return Report();
    }

  private:
    std::vector<std::string> Options() const {
        return {"--rate", "0", "--db", m_strDb, "--max-size", "65536"};
    }

    void StartSenders() {
        for (int i = 0; i < m_Settings.senders; ++i) {
            m_Senders.push_back(
                std::make_unique<CSender>(m_Bus.Address(), i, m_Random(), m_nAccepted));
        }
    }

    // One service of five is killed while it starts, the others while they store batches.
    void KillOnce() {
        const bool early = std::uniform_int_distribution(0, 4)(m_Random) == 0;
        const std::chrono::microseconds delay(
            std::uniform_int_distribution(0, early ? 20'000 : 60'000)(m_Random));
        CServiceProcess service(m_Settings.service, m_Bus.Address(), Options());
        if (!early) {
            WaitForBatch(service);
        }
        std::this_thread::sleep_for(delay);
        service.Kill();
    }

    void WaitForBatch(CServiceProcess& service) {
        const std::int64_t before = m_nAccepted;
        service.WaitUntilReady();
        if (!Eventually([&] { return m_nAccepted != before; })) {
            throw std::runtime_error("the service accepts nothing");
        }
    }

    int Report() const {
        std::vector<Account> accounts;
        for (const auto& pSender : m_Senders) {
            accounts.push_back(pSender->Sent());
        }
        CAudit audit(accounts, m_strDb);
        std::printf(
            "%d kills: %lld batches accepted, %lld refused, %lld without an answer (%lld of them "
            "kept), %lld records kept, %s\n",
            m_Settings.kills, static_cast<long long>(audit.batches[Answer::kAccepted]),
            static_cast<long long>(audit.batches[Answer::kRefused]),
            static_cast<long long>(audit.batches[Answer::NONE]),
            static_cast<long long>(audit.unansweredKept), static_cast<long long>(audit.records),
            audit.faults == 0 ? "none lost, none twice, none in part" : "WRONG");
        // The proof needs batches under way when the service was killed.
        const bool proven = audit.batches[Answer::kAccepted] >= m_Settings.kills / 2 &&
                            audit.batches[Answer::NONE] > 0;
        if (!proven) {
            std::printf("too few batches were sent to prove anything\n");
        }
        return audit.faults == 0 && proven ? 0 : 1;
    }

    const Settings m_Settings;
    CTemporaryFolder m_Folder;
    const std::string m_strDb;
    std::mt19937 m_Random;
    CPrivateBus m_Bus;
    std::atomic<std::int64_t> m_nAccepted = 0;
    std::vector<std::unique_ptr<CSender>> m_Senders;
};

}  // namespace

int main(int argc, char** argv) try {
    Settings settings;
    CLI::App app("Kill the collection service under load and audit its store.");
    app.add_option("--service", settings.service, "The program")->required();
    app.add_option("--folder", settings.folder, "Folder of the database; default: a temporary one");
    app.add_option("--kills", settings.kills)->check(CLI::Range(1, 100000));
    app.add_option("--senders", settings.senders)->check(CLI::Range(1, 100));
    app.add_option("--seed", settings.seed, "As printed by an earlier run");
    CLI11_PARSE(app, argc, argv);
    return CKills(settings).Run();
} catch (const std::exception& error) {
    std::fprintf(stderr, "tallyra-stress-kills: %s\n", error.what());
    return 2;
}
