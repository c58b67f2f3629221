// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PrivateBus.h"
#include "Test.h"
#include "doubles/PlatformDouble.h"
#include "receiver/Receiver.h"

#include <tallyra/ITYDataCollector.h>

#include <dlfcn.h>
#include <random>

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

namespace {

constexpr int kPlayers = 8;
constexpr int kSeats = 4;
constexpr int kRolls = 9;
constexpr const char* kApplication = "org.example.torture";
/// Numbered by the players: its parameters are the number and the player.
constexpr auto kFreeEvent = static_cast<TY_EVENT_TYPE>(99);

std::atomic<int> g_nTimerCalls{0};

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

/// Checks the sessions' calls and records in the order of arrival: they must be well-formed, each
/// record must belong to its session, and each player's numbered records must arrive in order and
/// at most once. Records may be missing, since services vanish.
///
/// Threads: one at a time.
class CAudit {
  public:
    static std::string Url(const std::string& session) { return "torture/" + session; }
    static std::string Title(const std::string& session) { return "Session " + session; }

    void Take(const receiver::Call& call, const std::vector<receiver::ReceivedRecord>& records) {
        EXPECT_EQ(call.strProblem, "");
        for (const auto& [record, url] : records) {
            SCOPED_TRACE(testing::Message() << url << ": " << int{record.event} << " "
                                            << record.param1 << " " << record.param2);
            Judge(url, record);
        }
    }

    /// @return the numbered records that arrived
    int Numbered() const { return m_nNumbered; }
    std::size_t Sessions() const { return m_Sessions.size(); }

  private:
    struct Session {
        std::set<std::string> playbacks;
        std::array<int, kPlayers> next{};
        int records = 0;
        bool bStopped = false;
    };

    void Judge(const std::string& url, const receiver::Record& record) {
        const std::string number = url.substr(url.find('/') + 1);
        EXPECT_EQ(url, Url(number));
        EXPECT_EQ(record.title, Title(number));
        EXPECT_EQ(record.serviceId, kApplication);
        Session& session = m_Sessions[url];
        ++session.records;
        JudgePlayback(record, session);
        EXPECT_TRUE(record.event != TY_EVENT_START || session.records == 1);
        EXPECT_TRUE(!session.bStopped || record.event == TY_EVENT_PLAYING_TIME);
        session.bStopped = session.bStopped || record.event == TY_EVENT_STOP;
        if (record.event == kFreeEvent) {
            JudgeOrder(record, session);
        }
    }

    // When the key goes off, a player may report after the playback has ended: that record has
    // none.
    void JudgePlayback(const receiver::Record& record, Session& session) {
        if (!record.playbackId.empty() && session.playbacks.insert(record.playbackId).second) {
            EXPECT_TRUE(m_Playbacks.insert(record.playbackId).second) << "another session's";
            EXPECT_EQ(session.playbacks.size(), 1U) << "a second playback of the session";
        }
    }

    void JudgeOrder(const receiver::Record& record, Session& session) {
        ++m_nNumbered;
        int& next = session.next.at(static_cast<std::size_t>(record.param2));
        EXPECT_GE(record.param1, next) << "twice or out of order";
        next = record.param1 + 1;
    }

    std::map<std::string, Session> m_Sessions;  // by URL
    std::set<std::string> m_Playbacks;
    int m_nNumbered = 0;
};

/// One collector and its playback. The last player to release it deletes both.
class CSession {
  public:
    explicit CSession(int number)
        : m_strNumber(std::to_string(number)),
          m_pCollector(GetTYDataCollectorInstance(kApplication, TY_PLAYER_NATIVE)) {
        Describe();
        m_pCollector->SendMediaEvent(TY_EVENT_START, 0, 0);
        m_pCollector->SendMediaEvent(TY_EVENT_RENDER_START, 0, 0);
    }
    ~CSession() { m_pCollector->SendMediaEvent(TY_EVENT_STOP, 0, 0); }
    CSession(const CSession&) = delete;
    CSession& operator=(const CSession&) = delete;

    /// Makes a player's next call, chosen by `roll` in 0 to kRolls - 1.
    void Play(int player, int roll) {
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
                return m_pCollector->SendMediaEvent(kFreeEvent, sequence++, player);
        }
    }

  private:
    void Describe() {
        std::string url = CAudit::Url(m_strNumber);
        CTYContentInfo content(&url, 0);
        content.SetTitle(CAudit::Title(m_strNumber));
        m_pCollector->SetContentInfo(&content);
    }

    const std::string m_strNumber;
    const std::unique_ptr<ITYDataCollector> m_pCollector;
    // The next number of each player.
    std::array<int, kPlayers> m_Sequence{};
};

/// Eight players share four collectors that are deleted and recreated, while the key flips, the
/// network changes, the service appears and vanishes and the main loop runs the send timers every
/// millisecond.
class CTortureTest : public testing::Test {
  protected:
    CTortureTest() {
        m_Platform.mute = true;
        m_Platform.connectionType = CONNECTION_TYPE_WIFI;
        m_Bus.BecomeSystemBus();
    }

    /// A place for a session, which is replaced from time to time.
    struct Seat {
        std::mutex mutex;
        std::shared_ptr<CSession> pSession;
        Clock::time_point end;
    };

    /// Repeats a step with pauses of random length up to `longest`.
    void Repeat(milliseconds longest, const std::function<void(std::mt19937&)>& step) {
        std::mt19937 random(m_nSeed++);
        while (Clock::now() < m_End) {
            step(random);
            Pause(random, longest);
        }
    }

    static void Pause(std::mt19937& random, milliseconds longest) {
        const auto most = static_cast<int>(longest.count());
        std::this_thread::sleep_for(milliseconds(std::uniform_int_distribution(0, most)(random)));
    }

    /// @return the seat's session, a new one if the old one has expired
    std::shared_ptr<CSession> Sit(Seat& seat, std::mt19937& random) {
        // Deleted after the lock is released, by the last player that uses it.
        std::shared_ptr<CSession> pOld;
        const std::lock_guard lock(seat.mutex);
        if (seat.pSession == nullptr || Clock::now() >= seat.end) {
            pOld = std::exchange(seat.pSession, std::make_shared<CSession>(++m_nSessions));
            seat.end = Clock::now() + milliseconds(std::uniform_int_distribution(0, 1500)(random));
        }
        return seat.pSession;
    }

    // On the main thread. A new receiver every few seconds keeps few records; its destructor joins
    // the thread that calls the audit.
    void ServeOnAndOff() {
        Repeat(200ms, [this](std::mt19937& random) {
            receiver::CReceiver service(
                m_Bus.Address(),
                [this](const auto& call, const auto& records) { m_Audit.Take(call, records); });
            service.OwnName();
            Pause(random, 1500ms);
        });
    }

    void Play() {
        std::vector<std::jthread> threads;
        for (int player = 0; player < kPlayers; ++player) {
            threads.emplace_back([this, player] {
                Repeat(10ms, [this, player](std::mt19937& random) {
                    const std::shared_ptr<CSession> pSession =
                        Sit(m_Seats[random() % kSeats], random);
                    for (int i = 0; i < 4; ++i) {
                        pSession->Play(player, static_cast<int>(random() % kRolls));
                    }
                });
            });
        }
        threads.emplace_back([this] {
            Repeat(20ms, [this](std::mt19937& random) {
                m_Platform.ChangeKey(1);
                Pause(random, 1000ms);
                m_Platform.ChangeKey(0);
                ++m_nFlips;
            });
        });
        threads.emplace_back([this] {
            Repeat(5ms, [this](std::mt19937& random) {
                m_Platform.FireNetwork(static_cast<int>(random() % 2), "GATEWAY");
            });
        });
        ServeOnAndOff();
    }

    /// @return how long to run: what script/stress chose, or 3 s
    static std::chrono::seconds Duration() {
        const char* pSeconds = std::getenv("TALLYRA_STRESS_TIMES");
        return std::chrono::seconds(pSeconds == nullptr ? 3 : std::atoi(pSeconds));
    }

    CPlatformDouble& m_Platform = CPlatformDouble::Instance();
    const Clock::time_point m_End = Clock::now() + Duration();
    std::atomic<unsigned> m_nSeed{std::random_device()()};
    CAudit m_Audit;
    CPrivateBus m_Bus;
    std::array<Seat, kSeats> m_Seats;
    std::atomic<int> m_nSessions{0};
    std::atomic<int> m_nFlips{0};
};

TEST_F(CTortureTest, RecordsArriveInOrderAndOnce) {
    GMainLoop* pLoop = g_main_loop_new(nullptr, FALSE);
    std::thread mainLoop([pLoop] { g_main_loop_run(pLoop); });
    Play();
    for (Seat& seat : m_Seats) {
        seat.pSession.reset();
    }
    g_main_loop_quit(pLoop);
    mainLoop.join();
    g_main_loop_unref(pLoop);
    EXPECT_GT(m_Audit.Numbered(), 0);
    EXPECT_LE(m_Audit.Sessions(), static_cast<std::size_t>(m_nSessions));
    EXPECT_TRUE(m_nFlips > 0 && g_nTimerCalls > 0) << "nothing happened";
}

}  // namespace
