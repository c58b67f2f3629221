// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "HostFixture.h"
#include "Proc.h"
#include "Sanitizers.h"

#include <gio/gio.h>
#include <gio/gunixfdlist.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

namespace {

/// Makes a system call fail with EPERM from here on, on all threads.
bool Forbid(unsigned call) {
    sock_filter steps[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program{static_cast<unsigned short>(std::size(steps)), steps};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_TSYNC, &program) == 0;
}

/// What a program inherits. The receiver in this process adds the same to each count.
int InheritedDescriptors() {
    return std::system("exit $(ls /proc/self/fd | wc -l)");
}

int RealTimeThreads() {
    int threads = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        threads += sched_getscheduler(std::stoi(task.path().filename())) == SCHED_FIFO ? 1 : 0;
    }
    return threads;
}

bool NamesBus(const char* address) {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address, 1);
    const std::size_t descriptors = EntriesOf("/proc/self/fd");
    Play(*MakeCollector());
    return EntriesOf("/proc/self/fd") <= descriptors;
}

/// Hosts that restrict, replace or share what the library needs.
const Named<Scenario> kGuests[] = {
    {"PushAMainContextOfItsOwn",
     [](CHostTest& host) {
         g_main_context_push_thread_default(g_main_context_new());
         return host.CanPlay();
     }},
    {"ForbidSchedSetscheduler",
     [](CHostTest& host) { return Forbid(SYS_sched_setscheduler) && host.CanPlay(); }},
    {"ForbidInotifyInit1",
     [](CHostTest& host) { return Forbid(SYS_inotify_init1) && host.CanPlay(); }},
    {"NameADeadBusBeforeALiveOne",
     [](CHostTest& host) {
         const std::string addresses = "unix:path=/nowhere;" + host.m_Bus.Address();
         return setenv("DBUS_SYSTEM_BUS_ADDRESS", addresses.c_str(), 1) == 0 && host.CanPlay();
     }},
    {"CloseStandardErrorBeforeItsFirstCollector",
     [](CHostTest& host) {
         return setenv("LOGSVC_LEVEL", "info", 1) == 0 && close(STDERR_FILENO) == 0 &&
                host.CanPlay();
     }},
    {"BlockAllSignals",
     [](CHostTest& host) {
         sigset_t all;
         return sigfillset(&all) == 0 && pthread_sigmask(SIG_SETMASK, &all, nullptr) == 0 &&
                host.CanPlay();
     }},
    {"NameNonsense", [](CHostTest&) { return NamesBus("nonsense"); }},
    {"NameNothing", [](CHostTest&) { return NamesBus(";;;"); }},
    {"NameAutolaunch", [](CHostTest&) { return NamesBus("autolaunch:"); }},
    {"NameAFolder", [](CHostTest&) { return NamesBus("unix:path=/"); }},
    {"NameAClosedPort", [](CHostTest&) { return NamesBus("tcp:host=127.0.0.1,port=1"); }},
    {"NameAProgram", [](CHostTest&) { return NamesBus("unixexec:path=/bin/true"); }},
    {"DeleteItsCollectorInACallbackOfItsMainLoop",
     [](CHostTest& host) {
         Collector collector = MakeCollector();
         host.PlayUntilItArrives(*collector);
         const auto deleteIt = [](gpointer pCollector) -> gboolean {
             static_cast<Collector*>(pCollector)->reset();
             return G_SOURCE_REMOVE;
         };
         g_idle_add(deleteIt, &collector);
         while (collector != nullptr) {
             g_main_context_iteration(nullptr, TRUE);
         }
         return true;
     }},
    {"MakeAndDeleteTwoHundredCollectors",
     [](CHostTest& host) {
         host.PlayUntilItArrives(*MakeCollector());
         const std::size_t threads = EntriesOf("/proc/self/task");
         const std::size_t descriptors = EntriesOf("/proc/self/fd");
         std::vector<Collector> collectors(200);
         std::ranges::generate(collectors, &MakeCollector);
         collectors.clear();
         // A joined thread leaves /proc a moment later.
         return Eventually([&] {
             return EntriesOf("/proc/self/task") <= threads &&
                    EntriesOf("/proc/self/fd") <= descriptors;
         });
     }},
    {"StartProgramsThatInheritNoDescriptor",
     [](CHostTest& host) {
         const int before = InheritedDescriptors();
         const Collector collector = MakeCollector();
         host.PlayUntilItArrives(*collector);
         return InheritedDescriptors() == before;
     }},
};

INSTANTIATE_TEST_SUITE_P(Guests, CHostMayTest, testing::ValuesIn(kGuests), kByName);

class CGuestTest : public CHostTest {};

TEST_F(CGuestTest, KeepsItsRealTimePriorityForItsOwnThreads) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root may use real-time scheduling";
    }
    ExpectInNewProcess(
        [this] {
            const sched_param priority{10};
            if (sched_setscheduler(0, SCHED_FIFO, &priority) != 0) {
                return false;
            }
            const Collector collector = MakeCollector();
            PlayUntilItArrives(*collector);
            return RealTimeThreads() == 1;
        },
        kSecondsOfAScenario);
}

/// @return a D-Bus signal with four descriptors and 64 KiB of text, for the client with that name
GDBusMessage* StraySignal(const std::string& client) {
    const std::string text(65536, 'x');
    GDBusMessage* pMessage = g_dbus_message_new_signal("/noise", "org.example.Noise", "Noise");
    GUnixFDList* pDescriptors = g_unix_fd_list_new();
    for (int i = 0; i < 4; ++i) {
        g_unix_fd_list_append(pDescriptors, STDIN_FILENO, nullptr);
    }
    g_dbus_message_set_destination(pMessage, client.c_str());
    g_dbus_message_set_unix_fd_list(pMessage, pDescriptors);
    g_dbus_message_set_body(pMessage, g_variant_new("(s)", text.c_str()));
    g_object_unref(pDescriptors);
    return pMessage;
}

/// Messages that strangers send to the library's connection.
class CStrayMessageTest : public CHostTest {
  public:
    /// Sends signals to the newest collector until it is stopped.
    std::jthread MakeNoise() {
        const std::string client = m_Service.Calls("GetPolicyInfo").back().strSender;
        return std::jthread([this, client](const std::stop_token& stop) {
            GDBusConnection* pBus = g_dbus_connection_new_for_address_sync(
                m_Bus.Address().c_str(),
                static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                  G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
                nullptr, nullptr, nullptr);
            for (; !stop.stop_requested(); ++m_nSignals) {
                GDBusMessage* pMessage = StraySignal(client);
                g_dbus_connection_send_message(pBus, pMessage, G_DBUS_SEND_MESSAGE_FLAGS_NONE,
                                               nullptr, nullptr);
                g_dbus_connection_flush_sync(pBus, nullptr, nullptr);
                g_object_unref(pMessage);
            }
            g_dbus_connection_close_sync(pBus, nullptr, nullptr);
            g_object_unref(pBus);
        });
    }

    /// Plays until a condition holds. Each call of a playback drops what came before it.
    template <class Condition>
    static bool PlayUntil(ITYDataCollector& collector, const Condition& condition) {
        return Eventually([&] {
            Play(collector);
            return condition();
        });
    }

    std::atomic<int> m_nSignals = 0;
};

TEST_F(CStrayMessageTest, MessagesThatNobodyAskedForAreNotKept) {
    const auto run = [this] {
        constexpr long kMostGrowthKib = 30 * 1024;
        const Collector collector = MakeCollector();
        PlayUntilItArrives(*collector);
        // The receiver in this process would keep the records of what is played from here on.
        m_Service.ReleaseName();
        const std::size_t descriptors = EntriesOf("/proc/self/fd");
        const long before = ReadProcKib(getpid(), "VmRSS");
        std::jthread noise = MakeNoise();
        const bool sent = PlayUntil(*collector, [this] { return m_nSignals >= 2000; });
        noise = {};
        return sent &&
               PlayUntil(*collector, [=] { return EntriesOf("/proc/self/fd") <= descriptors; }) &&
               (kWithSanitizersAllocator ||
                ReadProcKib(getpid(), "VmRSS") < before + kMostGrowthKib);
    };
    ExpectInNewProcess(run, kSecondsOfAScenario);
}

}  // namespace
