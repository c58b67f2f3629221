// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The program "tallyra-torture": eight players share four collectors that are deleted and
// recreated, while the key flips, the network changes, the service appears and vanishes and the
// main loop runs the send timers every millisecond. Records must arrive well-formed, in order and
// once.
//
//     tallyra-torture [SECONDS]

#include "PrivateBus.h"
#include "doubles/PlatformDouble.h"
#include "receiver/Receiver.h"

#include <tallyra/ITYDataCollector.h>

#include <dlfcn.h>
#include <glib.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kSeats = 4;
constexpr int kRolls = 9;

std::atomic<std::uint64_t> g_nTimerCalls{0};

}  // namespace

// Replaces GLib's function: the library's send timer has a period of a minute, here of 1 ms.
extern "C" guint g_timeout_add_full(gint priority, guint /*interval*/, GSourceFunc function,
                                    gpointer data, GDestroyNotify notify) {
    static const auto original =
        reinterpret_cast<decltype(&g_timeout_add_full)>(dlsym(RTLD_NEXT, "g_timeout_add_full"));
    g_nTimerCalls.fetch_add(1, std::memory_order_relaxed);
    return original(priority, 1, function, data, notify);
}

// By design, records queued in a collector that was switched off and on are leaked: no thread takes
// them any more.
extern "C" const char* __lsan_default_suppressions() {  // NOLINT: the sanitizer's name for it
    return "leak:CTYDataCollector::InsertData";
}

namespace {

/// Checks the sessions' calls and records as they arrive: they must be well-formed, each record
/// must belong to its session, and each player's numbered records must arrive in order and at most
/// once. Records may be missing, since services vanish.
///
/// Threads: any; one lock guards all.
class CTortureAudit {
  public:
    static constexpr int kPlayers = 8;
    static constexpr const char* kApplication = "org.example.torture";
    /// Numbered by the players: its parameters are the number and the player.
    static constexpr auto kFreeEvent = static_cast<TY_EVENT_TYPE>(99);

    /// The content of a session.
    static std::string Url(const std::string& session) { return "torture/" + session; }
    static std::string Title(const std::string& session) { return "Session " + session; }

    /// Checks one call with its records; called in the order of arrival.
    void Take(const receiver::Call& call, const std::vector<receiver::ReceivedRecord>& records) {
        const std::lock_guard lock(m_Mutex);
        Check(call.strProblem.empty(), call.strFunction + ": " + call.strProblem);
        for (const auto& received : records) {
            ++m_nRecords;
            Judge(received.strUrl, received.record);
        }
    }

    /// Prints the numbers and the faults.
    /// @param sessions  is the number of sessions, counted from 1
    /// @return whether numbered records arrived without a fault
    bool Report(int sessions) const {
        const std::lock_guard lock(m_Mutex);
        std::printf(
            "%zu records arrived, %zu of them numbered, from %zu of %d sessions: %zu faults\n",
            m_nRecords, m_nNumbered, m_Sessions.size(), sessions, m_nFaults);
        return m_nFaults == 0 && m_nNumbered > 0 &&
               m_Sessions.size() <= static_cast<std::size_t>(sessions);
    }

  private:
    struct Session {
        std::set<std::string> playbacks;
        std::array<int, kPlayers> next{};
        int records = 0;
        bool bStopped = false;
    };

    void Judge(const std::string& url, const receiver::Record& record) {
        const std::string number = url.substr(url.find('/') + 1);
        if (url != Url(number) || record.title != Title(number) ||
            record.serviceId != kApplication) {
            return Check(record, false, "belongs to no session or differs from what was reported");
        }
        Session& session = m_Sessions[url];
        ++session.records;
        JudgePlayback(record, session);
        Check(record, record.event != TY_EVENT_START || session.records == 1,
              "is not its session's first");
        Check(record, !session.bStopped || record.event == TY_EVENT_PLAYING_TIME,
              "came after the STOP");
        session.bStopped = session.bStopped || record.event == TY_EVENT_STOP;
        if (record.event == kFreeEvent) {
            JudgeOrder(record, session);
        }
    }

    // When the key goes off, a player may report after the playback has ended: that record has
    // none.
    void JudgePlayback(const receiver::Record& record, Session& session) {
        if (record.playbackId.empty()) {
            return;
        }
        const bool isNew = session.playbacks.insert(record.playbackId).second;
        Check(record, !isNew || m_Playbacks.insert(record.playbackId).second,
              "has another session's playback");
        Check(record, session.playbacks.size() == 1,
              "has a second playback of a session that started one");
    }

    void JudgeOrder(const receiver::Record& record, Session& session) {
        ++m_nNumbered;
        const auto player = static_cast<std::size_t>(record.param2);
        if (player >= session.next.size()) {
            return Check(record, false, "has no player");
        }
        Check(record, record.param1 >= session.next[player], "came twice or out of order");
        session.next[player] = record.param1 + 1;
    }

    void Check(const receiver::Record& record, bool holds, const char* pFault) {
        Check(holds, std::to_string(record.event) + " " + std::to_string(record.param1) + " " +
                         std::to_string(record.param2) + " of \"" + record.title + "\" " + pFault);
    }

    // Prints the first faults.
    void Check(bool holds, const std::string& fault) {
        constexpr std::size_t kFaultsPrinted = 20;
        if (!holds && ++m_nFaults <= kFaultsPrinted) {
            std::printf("FAULT %s\n", fault.c_str());
        }
    }

    mutable std::mutex m_Mutex;
    std::map<std::string, Session> m_Sessions;  // by URL
    std::set<std::string> m_Playbacks;
    std::size_t m_nRecords = 0;
    std::size_t m_nNumbered = 0;
    std::size_t m_nFaults = 0;
};

/// One collector and its playback. The last player to release it deletes both.
class CSession {
  public:
    explicit CSession(int number)
        : m_strNumber(std::to_string(number)),
          m_pCollector(GetTYDataCollectorInstance(CTortureAudit::kApplication, TY_PLAYER_NATIVE)) {
        Describe();
        m_pCollector->SendMediaEvent(TY_EVENT_START, 0, 0);
        m_pCollector->SendMediaEvent(TY_EVENT_RENDER_START, 0, 0);
    }
    ~CSession() { m_pCollector->SendMediaEvent(TY_EVENT_STOP, 0, 0); }
    CSession(const CSession&) = delete;
    CSession& operator=(const CSession&) = delete;

    /// Makes a player's next call, chosen by `roll` in 0 to kRolls - 1.
    void Play(int player, int roll);

  private:
    void Describe() {
        std::string url = CTortureAudit::Url(m_strNumber);
        CTYContentInfo content(&url, 0);
        content.SetTitle(CTortureAudit::Title(m_strNumber));
        m_pCollector->SetContentInfo(&content);
    }

    const std::string m_strNumber;
    const std::unique_ptr<ITYDataCollector> m_pCollector;
    // The next number of each player.
    std::array<int, CTortureAudit::kPlayers> m_Sequence{};
};

void CSession::Play(int player, int roll) {
    int& sequence = m_Sequence[static_cast<std::size_t>(player)];
    switch (roll) {
        case 0:
            return Describe();
        case 1:
            m_pCollector->SetDuration(sequence);
            return m_pCollector->SetDrmType(TY_DRM_WIDEVINE);
        case 2:
            return m_pCollector->SendMediaError(static_cast<TY_ERROR_TYPE>(31));
        case 3:
            m_pCollector->SendMediaEvent(TY_EVENT_BUFFERING_START, 0, 0);
            return m_pCollector->SendMediaEvent(TY_EVENT_BUFFERING_END, 0, 0);
        case 4:
            return m_pCollector->SendMediaEvent(TY_EVENT_PLAYBACK_TIME, sequence * 1000, 0);
        case 5:
            static_cast<void>(m_pCollector->Execute(100 + player, sequence, "text"));
            return m_pCollector->SetServiceVersion("7.7");
        default:
            return m_pCollector->SendMediaEvent(CTortureAudit::kFreeEvent, sequence++, player);
    }
}

class CTorture {
  public:
    explicit CTorture(std::chrono::seconds time) : m_End(Clock::now() + time) {
        CPlatformDouble& platform = CPlatformDouble::Instance();
        platform.mute = true;
        platform.connectionType = CONNECTION_TYPE_WIFI;
        m_Bus.BecomeSystemBus();
    }

    int Run() {
        std::thread mainLoop([this] { g_main_loop_run(m_pLoop.get()); });
        {
            std::vector<std::jthread> threads;
            for (int player = 0; player < CTortureAudit::kPlayers; ++player) {
                threads.emplace_back([this, player] { RunPlayer(player); });
            }
            threads.emplace_back([this] { FlipKey(); });
            threads.emplace_back([this] { ChangeNetwork(); });
            ServeOnAndOff();
        }
        for (Seat& seat : m_Seats) {
            seat.pSession.reset();
        }
        g_main_loop_quit(m_pLoop.get());
        mainLoop.join();
        return Report();
    }

  private:
    using SessionPtr = std::shared_ptr<CSession>;

    /// A place for a session, which is replaced from time to time.
    struct Seat {
        std::mutex mutex;
        SessionPtr pSession;
        Clock::time_point end;
    };

    /// Repeats a step with pauses of random length up to `longest`.
    void Repeat(std::chrono::milliseconds longest, const std::function<void(std::mt19937&)>& step) {
        std::mt19937 random(m_nSeed++);
        while (Clock::now() < m_End) {
            step(random);
            Pause(random, longest);
        }
    }

    static void Pause(std::mt19937& random, std::chrono::milliseconds longest) {
        const auto most = static_cast<int>(longest.count());
        std::this_thread::sleep_for(
            std::chrono::milliseconds(std::uniform_int_distribution(0, most)(random)));
    }

    void RunPlayer(int player) {
        Repeat(10ms, [this, player](std::mt19937& random) {
            Seat& seat = m_Seats[random() % kSeats];
            const SessionPtr pSession = Sit(seat, random);
            for (int i = 0; i < 4; ++i) {
                pSession->Play(player, static_cast<int>(random() % kRolls));
            }
        });
    }

    /// @return the seat's session, a new one if the old one has expired
    SessionPtr Sit(Seat& seat, std::mt19937& random) {
        SessionPtr pOld;
        const std::lock_guard lock(seat.mutex);
        if (seat.pSession == nullptr || Clock::now() >= seat.end) {
            // Deleted after the lock is released, by the last player that uses it.
            pOld = std::move(seat.pSession);
            seat.pSession = std::make_shared<CSession>(++m_nSessions);
            seat.end = Clock::now() +
                       std::chrono::milliseconds(std::uniform_int_distribution(0, 1500)(random));
        }
        return seat.pSession;
    }

    void FlipKey() {
        Repeat(20ms, [this](std::mt19937& random) {
            CPlatformDouble::Instance().ChangeKey(1);
            Pause(random, 1000ms);
            CPlatformDouble::Instance().ChangeKey(0);
            ++m_nFlips;
        });
    }

    void ChangeNetwork() {
        Repeat(5ms, [this](std::mt19937& random) {
            CPlatformDouble::Instance().FireNetwork(static_cast<int>(random() % 2), "GATEWAY");
            ++m_nNetworkEvents;
        });
    }

    // On the main thread. A new receiver every few seconds keeps few records.
    void ServeOnAndOff() {
        Repeat(200ms, [this](std::mt19937& random) {
            receiver::CReceiver service(
                m_Bus.Address(),
                [this](const auto& call, const auto& records) { m_Audit.Take(call, records); });
            service.OwnName();
            ++m_nServices;
            Pause(random, 1500ms);
        });
    }

    int Report() {
        std::printf(
            "%d sessions, %d flips of the key, %d network events, %d services, %llu timers\n",
            m_nSessions.load(), m_nFlips.load(), m_nNetworkEvents.load(), m_nServices,
            static_cast<unsigned long long>(g_nTimerCalls.load()));
        const bool happened = m_nFlips > 0 && m_nNetworkEvents > 0 && g_nTimerCalls > 0;
        if (!happened) {
            std::printf("too few events happened to prove anything\n");
        }
        const bool isSound = m_Audit.Report(m_nSessions);
        std::fflush(stdout);  // a sanitizer may end the process without flushing
        return isSound && happened ? 0 : 1;
    }

    const Clock::time_point m_End;
    std::atomic<unsigned> m_nSeed{std::random_device()()};
    CTortureAudit m_Audit;
    CPrivateBus m_Bus;
    const std::unique_ptr<GMainLoop, decltype(&g_main_loop_unref)> m_pLoop{
        g_main_loop_new(nullptr, FALSE), &g_main_loop_unref};
    std::array<Seat, kSeats> m_Seats;
    std::atomic<int> m_nSessions{0};
    std::atomic<int> m_nFlips{0};
    std::atomic<int> m_nNetworkEvents{0};
    int m_nServices = 0;
};

}  // namespace

int main(int argc, char** argv) {
    const int seconds = argc > 1 ? std::atoi(argv[1]) : 60;
    if (argc > 2 || seconds < 1) {
        std::fprintf(stderr, "usage: tallyra-torture [SECONDS]\n");
        return 2;
    }
    return CTorture(std::chrono::seconds(seconds)).Run();
}
