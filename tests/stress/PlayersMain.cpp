// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The program "tallyra-stress-players": runs many players at once, each a process with the library,
// and checks that the service stores all their records in order.

#include "PrivateBus.h"
#include "ServiceProcess.h"
#include "TYDatabase.h"
#include "TemporaryFolder.h"

#include <CLI/CLI.hpp>

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <system_error>

namespace {

constexpr std::chrono::seconds kPlayersPatience = 2 * kPatience;
// The library sends 10 records at once, without waiting for its timer.
constexpr int kFirst = 20;
constexpr int kEvents = 150;

struct Settings {
    std::string service;
    std::string player;
    std::string regdb;
    int players = 50;
};

class CPlayers {
  public:
    explicit CPlayers(const Settings& settings) : m_Settings(settings) {
        PrepareEnvironment();
        if (pipe2(m_Go.data(), O_CLOEXEC) != 0) {
            throw std::system_error(errno, std::generic_category(), "pipe2");
        }
    }
    ~CPlayers() {
        close(m_Go[0]);
        Go();
    }
    CPlayers(const CPlayers&) = delete;
    CPlayers& operator=(const CPlayers&) = delete;

    int Run() {
        CServiceProcess service(m_Settings.service, m_Bus.Address(), {"--rate", "0", "--db", Db()});
        service.WaitUntilReady();
        StartPlayers();
        WaitUntilAllAreConnected();
        Go();
        EndPlayers();
        service.Terminate();
        return Report();
    }

  private:
    std::string Db() const { return m_Folder.Path() / "players.db"; }

    static std::string Application(int player) {
        return "org.example.player" + std::to_string(player);
    }

    // Players must not read or write the user's settings.
    void PrepareEnvironment() {
        const std::string folder = m_Folder.Path();
        for (const char* pName : {"HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME", "XDG_CONFIG_HOME"}) {
            setenv(pName, folder.c_str(), 1);
        }
        setenv("REGDB_FILE", (folder + "/regdb.ini").c_str(), 1);
        setenv("LOGSVC_OUTPUT", "stderr", 1);
        setenv("LOGSVC_LEVEL", "off", 0);
        m_Bus.BecomeSystemBus();
        CChildProcess regdb({m_Settings.regdb, "set", "db/tallyra/log_on", "1"});
        if (regdb.WaitForExit(kPatience) != 0) {
            throw std::runtime_error("cannot switch collecting on");
        }
    }

    void StartPlayers() {
        for (int i = 0; i < m_Settings.players; ++i) {
            m_Players.push_back(std::make_unique<CChildProcess>(
                std::vector<std::string>{m_Settings.player, Application(i), std::to_string(kFirst),
                                         std::to_string(kEvents), std::to_string(m_Go[0])},
                ChildOptions{.keepFds = {m_Go[0]}}));
        }
    }

    // A player's first records are stored once its library has found the service. The service owns
    // its name before its store exists.
    void WaitUntilAllAreConnected() const {
        const auto allAreConnected = [this] {
            try {
                CTYDatabase database(Db(), CTYDatabase::Mode::READ_ONLY);
                return database.Number("SELECT count(DISTINCT service_id) FROM playbacks") >=
                       m_Settings.players;
            } catch (const CTYDatabaseError&) {
                return false;
            }
        };
        if (!Eventually(allAreConnected, kPlayersPatience)) {
            throw std::runtime_error("not every player finds the service");
        }
    }

    void Go() {
        if (m_Go[1] >= 0) {
            close(m_Go[1]);
            m_Go[1] = -1;
        }
    }

    void EndPlayers() {
        for (const auto& pPlayer : m_Players) {
            if (pPlayer->WaitForExit(kPlayersPatience) != 0) {
                throw std::runtime_error("a player failed, or does not end");
            }
        }
    }

    // The play time is the only value that cannot be predicted.
    std::vector<std::string> Expected(const std::string& application) const {
        const std::string content =
            " https://video.example.org/" + application + " Title of " + application;
        std::vector<std::string> lines{"1 0 0" + content};
        for (int i = 0; i < kEvents; ++i) {
            const std::string number = std::to_string(i);
            lines.push_back("99 " + number + " " + std::to_string(-i) + content);
        }
        lines.push_back("2 0 0" + content);
        lines.push_back("20 0 0" + content);
        return lines;
    }

    static std::vector<std::string> Kept(CTYDatabase& database, const std::string& application) {
        CTYStatement rows(database,
                          "SELECT event || ' ' || iif(event IN (2, 20), 0, param1) || ' ' || "
                          "iif(event = 20, 0, param2) || ' ' || url || ' ' || title FROM records "
                          "WHERE service_id = ? ORDER BY id");
        std::vector<std::string> lines;
        rows.Begin(application);
        while (rows.Step()) {
            lines.emplace_back(rows.Text(0));
        }
        return lines;
    }

    int Report() const {
        CTYDatabase database(Db(), CTYDatabase::Mode::READ_ONLY);
        int wrong = 0;
        for (int i = 0; i < m_Settings.players; ++i) {
            if (Kept(database, Application(i)) != Expected(Application(i))) {
                ++wrong;
                std::printf("FAULT %s: its records are not the expected ones, in order\n",
                            Application(i).c_str());
            }
        }
        const std::int64_t playbacks = database.Number("SELECT count(*) FROM playbacks");
        const std::int64_t records = database.Number("SELECT count(*) FROM records");
        std::printf("%d players: %lld playbacks, %lld records, %d players with faults\n",
                    m_Settings.players, static_cast<long long>(playbacks),
                    static_cast<long long>(records), wrong);
        return wrong == 0 && playbacks == m_Settings.players &&
                       records == std::int64_t{m_Settings.players} * (kEvents + 3)
                   ? 0
                   : 1;
    }

    const Settings m_Settings;
    CTemporaryFolder m_Folder;
    CPrivateBus m_Bus;
    std::array<int, 2> m_Go = {-1, -1};
    std::vector<std::unique_ptr<CChildProcess>> m_Players;
};

}  // namespace

int main(int argc, char** argv) try {
    Settings settings;
    CLI::App app("Run many players at once and audit the store.");
    app.add_option("--service", settings.service, "The collection service")->required();
    app.add_option("--player", settings.player, "The program tallyra-stress-player")->required();
    app.add_option("--regdb", settings.regdb, "The program regdb")->required();
    app.add_option("--players", settings.players)->check(CLI::Range(1, 200));
    CLI11_PARSE(app, argc, argv);
    return CPlayers(settings).Run();
} catch (const std::exception& error) {
    std::fprintf(stderr, "tallyra-stress-players: %s\n", error.what());
    return 2;
}
