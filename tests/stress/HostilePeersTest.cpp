// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Eventually.h"
#include "PoliteCaller.h"
#include "PrivateBus.h"
#include "Proc.h"
#include "RawPeer.h"
#include "Sanitizers.h"
#include "ServiceProcess.h"
#include "TYDatabase.h"
#include "TYMediaData.h"
#include "TYRecordImage.h"
#include "TableTest.h"

#include <sys/prctl.h>
#include <random>

// Peers that behave badly, each in a process of its own and, where the test is root's, of another
// user. Meanwhile two peers behave well, and measure how long the service takes to answer.

namespace {

using namespace std::chrono_literals;
using receiver::EncodeBody;
using receiver::Value;

constexpr uid_t kNobody = 65534;
constexpr int kFullBatch = 36;
constexpr std::size_t kLongUrl = std::size_t{16} << 20;
constexpr const char* kAlive = "(0, 0, 1)";
constexpr const char* kAccepted = "(0, 0, 1, 1, 0, 1)";

GVariant* Batch(const char* pApplication, int records, const std::string& url) {
    TYMediaData record{};
    record.event = 8;
    CopyText(record.serviceID, pApplication);
    CopyText(record.playbackID, std::to_string(getpid()).c_str());
    const std::string_view image = ImageOf(record);
    std::vector<Value> values = {"SendData"};
    values.insert(values.end(), static_cast<std::size_t>(records),
                  receiver::Bytes(image.begin(), image.end()));
    values.insert(values.end(), static_cast<std::size_t>(records), url);
    return EncodeBody(values);
}

// Sends the message again and again, and never waits.
[[noreturn]] void Pump(CRawPeer& peer, CRawMessage& message,
                       const std::function<void(CRawMessage&)>& change = {}) {
    for (;;) {
        if (change) {
            change(message);
        }
        std::string_view rest = message.WithSerial(peer.NextSerial());
        while (!rest.empty()) {
            rest.remove_prefix(peer.Exchange(rest));
        }
    }
}

void Flood(const std::string& address, int number) {
    CRawPeer peer(address);
    peer.Join();
    // The bus limits the number of unanswered calls, but not that of calls without a reply.
    CRawMessage message(Batch("org.example.hostile", kFullBatch, "https://h/f"), number % 2 == 0);
    Pump(peer, message);
}

void SendLongUrls(const std::string& address, int /*number*/) {
    CRawPeer peer(address);
    peer.Join();
    CRawMessage message(Batch("org.example.hostile", 1, std::string(kLongUrl, 'u')));
    std::uint32_t count = 0;
    Pump(peer, message, [&](CRawMessage& changed) {
        // Each has another URL; its end is the end of the message.
        const std::string digits = std::to_string(1'000'000 + ++count);
        changed.Bytes().replace(changed.Bytes().size() - 16, digits.size(), digits);
    });
}

void ConnectByHalf(const std::string& address, int /*number*/) {
    std::deque<CRawPeer> peers;
    for (;; std::this_thread::sleep_for(5ms)) {
        peers.emplace_back(address);
        peers.back().Write(std::string_view("\0AUTH EXTER", 11));
        if (peers.size() > 40) {
            peers.pop_front();
        }
    }
}

void SendByHalf(const std::string& address, int /*number*/) {
    CRawMessage message(Batch("org.example.hostile", kFullBatch, "https://h/f"));
    std::deque<CRawPeer> peers;
    for (;; std::this_thread::sleep_for(5ms)) {
        peers.emplace_back(address);
        peers.back().Join();
        const std::string& bytes = message.WithSerial(peers.back().NextSerial());
        peers.back().Write(std::string_view(bytes).substr(0, bytes.size() / 2));
        if (peers.size() > 40) {
            peers.pop_front();
        }
    }
}

void Reconnect(const std::string& address, int /*number*/) {
    CRawMessage message(Batch("org.example.hostile", 2, "https://h/f"));
    for (;; std::this_thread::sleep_for(10ms)) {
        CRawPeer peer(address);
        peer.Join();
        peer.Write(message.WithSerial(peer.NextSerial()));
    }
}

void SendSignals(const std::string& address, int number) {
    CRawPeer peer(address);
    peer.Join();
    const std::string to = ":1." + std::to_string(number);
    CRawMessage message(g_variant_new("(s)", std::string(1U << 20, 's').c_str()), false,
                        {to.c_str(), "/", "org.example.I", "S"}, true);
    Pump(peer, message);
}

/// A way to misbehave. In the long form, this many processes do it at once.
struct Attack {
    const char* pName;
    void (*pRun)(const std::string& address, int number);
    int processes;
    bool sendsRecords;
};
void PrintTo(const Attack& attack, std::ostream* pOut) {
    *pOut << attack.pName;
}

constexpr Attack kAttacks[] = {
    {"Floods", &Flood, 20, true},
    {"LongUrls", &SendLongUrls, 6, true},
    {"HalfOpenConnections", &ConnectByHalf, 1, false},
    {"HalfSentMessages", &SendByHalf, 1, false},
    {"ReconnectStorm", &Reconnect, 1, true},
    {"Signals", &SendSignals, 6, false},
};

// What a child process does; the test's own process starts it with these arguments.
int RunAttack(const std::string& name, const std::string& address, int number, pid_t parent) try {
    if (geteuid() == 0 && setuid(kNobody) != 0) {
        return 1;
    }
    // The kernel forgets the request of CChildProcess when the user changes.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (const Attack& attack : kAttacks) {
        if (name == attack.pName && getppid() == parent) {
            attack.pRun(address, number);
        }
    }
    return 1;
} catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", name.c_str(), error.what());
    return 1;
}

class CHostilePeersTest : public testing::Test {
  protected:
    // The short form proves that calls are answered, stored and counted, and that memory is
    // bounded. How long an answer takes is judged by the long form, which has the machine for
    // itself.
    static bool IsLong() { return std::getenv("TALLYRA_STRESS_TIMES") != nullptr; }
    static std::chrono::seconds Duration() {
        return std::chrono::seconds(IsLong() ? std::atoi(std::getenv("TALLYRA_STRESS_TIMES")) : 1);
    }

    // Users have limits of their own. Without another user there can be no limits.
    void StartService(std::vector<std::string> more = {}) {
        more.insert(more.end(), {"--db", m_strDb});
        if (geteuid() != 0) {
            more.insert(more.end(), {"--rate", "0"});
        }
        m_pService = std::make_unique<CServiceProcess>(SERVICE, m_Bus.Address(), more);
        m_pService->WaitUntilReady();
        m_pKick = std::make_unique<CPoliteCaller>(m_Bus.Address(), EncodeBody({"Kick", "Kick"}),
                                                  kAlive, 10ms);
        m_pSend = std::make_unique<CPoliteCaller>(
            m_Bus.Address(), Batch("org.example.polite", 5, "https://h/p"), kAccepted, 50ms);
        m_pBusCall = std::make_unique<CPoliteCaller>(
            m_Bus.Address(), g_variant_new("(s)", receiver::kServiceName), "(true,)", 10ms,
            RawAddress{"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                       "NameHasOwner"});
    }

    void StartAttack(const Attack& attack) {
        const int processes = IsLong() ? attack.processes : std::min(attack.processes, 4);
        for (int i = 0; i < processes; ++i) {
            m_Attackers.push_back(std::make_unique<CChildProcess>(
                std::vector<std::string>{"/proc/self/exe", attack.pName, m_Bus.Address(),
                                         std::to_string(i), std::to_string(getpid())}));
        }
    }

    void StartCallers() {
        m_pKick->Start();
        m_pSend->Start();
        m_pBusCall->Start();
    }

    /// Waits for the usual time, and longer if an attack has yet to take effect.
    void Endure(bool sendsRecords) {
        std::this_thread::sleep_for(Duration());
        EXPECT_TRUE(Eventually([&] { return !sendsRecords || HostileRecords() > 0; }));
    }

    /// @return the number of hostile records stored or lost so far
    std::int64_t HostileRecords() {
        return CTYDatabase(m_strDb, CTYDatabase::Mode::READ_ONLY)
            .Number(
                "SELECT (SELECT count(*) FROM records WHERE service_id LIKE '%hostile') + "
                "(SELECT total(records) FROM losses)");
    }

    /// Ends attack and callers, and checks what the callers saw.
    void StopAndCheck() {
        m_pKick->Stop();
        m_pSend->Stop();
        m_pBusCall->Stop();
        for (const auto& pAttacker : m_Attackers) {
            EXPECT_EQ(pAttacker->WaitForExit({}), std::nullopt) << "an attacker has ended";
            pAttacker->Kill();
        }
        const long peak = ReadProcKib(m_pService->Pid(), "VmHWM");
        std::printf(
            "Kick %zu calls, p99 %.1f ms, longest %.1f; SendData %zu, p99 %.1f, longest "
            "%.1f; the bus itself p99 %.1f; memory %.1f MiB\n",
            m_pKick->Calls(), m_pKick->Milliseconds(0.99), m_pKick->Milliseconds(1),
            m_pSend->Calls(), m_pSend->Milliseconds(0.99), m_pSend->Milliseconds(1),
            m_pBusCall->Milliseconds(0.99), static_cast<double>(peak) / 1024);
        EXPECT_THAT(m_pKick->Unexpected(), testing::IsEmpty());
        EXPECT_THAT(m_pSend->Unexpected(), testing::IsEmpty());
        if (!kWithSanitizersAllocator) {
            EXPECT_LE(peak, 64 << 10);
        }
        if (IsLong()) {
            // A call and its reply pass the bus, which the service cannot make faster.
            const double onTheBus = 2 * m_pBusCall->Milliseconds(0.99);
            EXPECT_LE(m_pKick->Milliseconds(0.99), 50 + onTheBus);
            EXPECT_LE(m_pSend->Milliseconds(0.99), 300 + onTheBus);
        }
    }

    /// Ends the service, and checks what it has stored and counted.
    void CheckStore(bool sendsRecords) {
        m_pService->Terminate();
        CTYDatabase database(m_strDb, CTYDatabase::Mode::READ_ONLY);
        EXPECT_EQ(database.Number("SELECT count(*) FROM records WHERE service_id LIKE '%polite'"),
                  5 * m_pSend->Expected());
        EXPECT_EQ(
            database.Number("SELECT total(records) FROM losses WHERE application LIKE '%polite'"),
            0);
        const std::int64_t hostile = HostileRecords();
        std::printf("%lld hostile records\n", static_cast<long long>(hostile));
        EXPECT_EQ(hostile > 0, sendsRecords) << hostile;
    }

    CTemporaryFolder m_Folder;
    const std::string m_strDb = m_Folder.Path() / "store.db";
    CPrivateBus m_Bus;
    std::unique_ptr<CServiceProcess> m_pService;
    std::unique_ptr<CPoliteCaller> m_pKick;
    std::unique_ptr<CPoliteCaller> m_pSend;
    std::unique_ptr<CPoliteCaller> m_pBusCall;
    std::vector<std::unique_ptr<CChildProcess>> m_Attackers;
};

class HostilePeers : public CHostilePeersTest, public testing::WithParamInterface<Attack> {};

TEST_P(HostilePeers, NeitherDelayNorLoseTheCallsOfOthers) {
    StartService();
    StartAttack(GetParam());
    StartCallers();
    Endure(GetParam().sendsRecords);
    StopAndCheck();
    CheckStore(GetParam().sendsRecords);
}

constexpr auto kByAttack = [](const auto& info) { return std::string(info.param.pName); };
INSTANTIATE_TEST_SUITE_P(Kinds, HostilePeers, testing::ValuesIn(kAttacks), kByAttack);

TEST_F(CHostilePeersTest, FloodWithoutARateLimitAndDelayNobody) {
    StartService({"--rate", "0"});
    StartAttack(kAttacks[0]);
    StartCallers();
    Endure(true);
    StopAndCheck();
    CheckStore(true);
}

// A random argument of a body; every type that D-Bus has but descriptors.
GVariant* RandomArgument(std::mt19937& random) {
    switch (random() % 12) {
        case 0:
            return g_variant_new_byte(static_cast<guint8>(random()));
        case 1:
            return g_variant_new_boolean(static_cast<gboolean>(random() % 2));
        case 2:
            return g_variant_new_double(static_cast<double>(random()));
        case 3:
            return g_variant_new_int64(static_cast<gint64>(random()));
        case 4:
            return g_variant_new_object_path("/a/b");
        case 5:
            return g_variant_new_variant(g_variant_new_string("v"));
        case 6:
            return g_variant_new("(is)", static_cast<int>(random()), "in a struct");
        case 7:
            return g_variant_new_parsed("{'key': <1>}");
        case 8:
            return g_variant_new_string(std::string(random() % 9000, 't').c_str());
        case 9:
            return g_variant_new_from_data(G_VARIANT_TYPE_BYTESTRING, "bytes", random() % 6, TRUE,
                                           nullptr, nullptr);
        default:
            return g_variant_new_int32(static_cast<int>(random() % 5) - 1);
    }
}

GVariant* RandomBody(std::uint32_t seed) {
    constexpr std::array kFunctions = {"SendData", "Kick", "GetPolicyInfo", "Sing"};
    std::mt19937 random(seed);
    GVariantBuilder body;
    g_variant_builder_init(&body, G_VARIANT_TYPE_TUPLE);
    if (random() % 4 != 0) {
        g_variant_builder_add(&body, "i", 0);
        g_variant_builder_add(&body, "i", 1);
        g_variant_builder_add(&body, "s", kFunctions.at(random() % kFunctions.size()));
    }
    for (std::uint32_t i = 1 + random() % 40; i > 0; --i) {
        g_variant_builder_add_value(&body, RandomArgument(random));
    }
    return g_variant_builder_end(&body);
}

TEST_F(CHostilePeersTest, Get500MalformedBodiesAnsweredOneByOne) {
    StartService();
    StartCallers();
    CRawPeer peer(m_Bus.Address());
    peer.Join();
    std::map<std::string, int> answers;
    for (std::uint32_t seed = 0; seed < 500; ++seed) {
        ++answers[peer.Call(RandomBody(seed))];
    }
    EXPECT_GE(answers["org.freedesktop.DBus.Error.InvalidArgs"], 490);
    EXPECT_EQ(answers[kAccepted], 0);
    StopAndCheck();
    m_pService->Terminate();
}

}  // namespace

/// Usage: tallyra-hostile-tests [GOOGLETEST-OPTION]... | ATTACK ADDRESS NUMBER PARENT
/// The second form is one hostile peer, which runs until it is killed.
int main(int argc, char** argv) {
    if (argc == 5) {
        return RunAttack(argv[1], argv[2], std::atoi(argv[3]), std::atoi(argv[4]));
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
