// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Eventually.h"
#include "HostFixture.h"
#include "TableTest.h"

#include <gio/gio.h>
#include <gio/gunixfdlist.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

namespace {

/// Hosts that restrict, replace or share what the library needs.
class CGuestTest : public CHostTest {};

std::size_t EntriesOf(const char* folder) {
    const std::filesystem::directory_iterator entries(folder);
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

TEST_F(CGuestTest, MayRunItsMainLoopOnAnotherThread) {
    ExpectHost([this] {
        GMainLoop* pLoop = g_main_loop_new(nullptr, FALSE);
        std::thread loop([pLoop] { g_main_loop_run(pLoop); });
        for (int i = 0; i < 5; ++i) {
            Play(*MakeCollector());
        }
        const bool played = CanPlay();
        g_main_loop_quit(pLoop);
        loop.join();
        return played;
    });
}

TEST_F(CGuestTest, MayDeleteItsCollectorInACallbackOfItsMainLoop) {
    ExpectHost([this] {
        Collector collector = MakeCollector();
        PlayUntilItArrives(*collector);
        g_idle_add(
            [](gpointer pCollector) -> gboolean {
                static_cast<Collector*>(pCollector)->reset();
                return G_SOURCE_REMOVE;
            },
            &collector);
        while (collector != nullptr) {
            g_main_context_iteration(nullptr, TRUE);
        }
        return true;
    });
}

TEST_F(CGuestTest, MayMakeAndDeleteTwoHundredCollectors) {
    ExpectHost([this] {
        PlayUntilItArrives(*MakeCollector());
        const std::size_t threads = EntriesOf("/proc/self/task");
        const std::size_t descriptors = EntriesOf("/proc/self/fd");
        std::vector<Collector> collectors(200);
        for (Collector& collector : collectors) {
            collector = MakeCollector();
        }
        collectors.clear();
        return EntriesOf("/proc/self/task") <= threads && EntriesOf("/proc/self/fd") <= descriptors;
    });
}

TEST_F(CGuestTest, ProgramsInheritNoDescriptor) {
    ExpectHost([this] {
        // What a program inherits. The receiver in this process adds the same to both counts.
        const char* pCount = "exit $(ls /proc/self/fd | wc -l)";
        const int before = std::system(pCount);
        const Collector collector = MakeCollector();
        PlayUntilItArrives(*collector);
        return std::system(pCount) == before;
    });
}

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

/// What a host does before its first collector. @return whether it succeeded
using Prepare = bool (*)();

const Named<Prepare> kPreparations[] = {
    {"MayPushAMainContextOfItsOwn",
     [] {
         g_main_context_push_thread_default(g_main_context_new());
         return true;
     }},
    {"MayForbidSchedSetscheduler", [] { return Forbid(SYS_sched_setscheduler); }},
    {"MayForbidInotifyInit1", [] { return Forbid(SYS_inotify_init1); }},
    {"MayNameADeadBusBeforeALiveOne",
     [] {
         const std::string live = getenv("DBUS_SYSTEM_BUS_ADDRESS");
         return setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=/nowhere;" + live).c_str(), 1) == 0;
     }},
    {"MayCloseStandardErrorBeforeItsFirstCollector",
     [] { return setenv("LOGSVC_LEVEL", "info", 1) == 0 && close(STDERR_FILENO) == 0; }},
    {"MayBlockAllSignals",
     [] {
         sigset_t all;
         return sigfillset(&all) == 0 && pthread_sigmask(SIG_SETMASK, &all, nullptr) == 0;
     }},
};

using CPreparedGuestTest = CTableTest<CGuestTest, Prepare>;

TEST_P(CPreparedGuestTest, Plays) {
    ExpectHost([this] { return Case()() && CanPlay(); });
}

INSTANTIATE_TEST_SUITE_P(Table, CPreparedGuestTest, testing::ValuesIn(kPreparations), kByName);

class CWrongAddressTest : public CGuestTest, public testing::WithParamInterface<const char*> {};

TEST_P(CWrongAddressTest, MayNameABusThatDoesNotExist) {
    ExpectHost([] {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", GetParam(), 1);
        const std::size_t descriptors = EntriesOf("/proc/self/fd");
        Play(*MakeCollector());
        return EntriesOf("/proc/self/fd") <= descriptors;
    });
}

INSTANTIATE_TEST_SUITE_P(Addresses, CWrongAddressTest,
                         testing::Values("nonsense", ";;;", "autolaunch:", "unix:path=/",
                                         "tcp:host=127.0.0.1,port=1", "unixexec:path=/bin/true"));

int RealTimeThreads() {
    int threads = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        threads += sched_getscheduler(std::stoi(task.path().filename())) == SCHED_FIFO ? 1 : 0;
    }
    return threads;
}

TEST_F(CGuestTest, KeepsItsRealTimePriorityForItsOwnThreads) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root may use real-time scheduling";
    }
    ExpectHost([this] {
        sched_param priority{};
        priority.sched_priority = 10;
        if (sched_setscheduler(0, SCHED_FIFO, &priority) != 0) {
            return false;
        }
        const Collector collector = MakeCollector();
        PlayUntilItArrives(*collector);
        return RealTimeThreads() == 1;
    });
}

/// @return a D-Bus signal with four descriptors, for the client with that name
GDBusMessage* SignalWithDescriptors(const std::string& client) {
    GDBusMessage* pMessage = g_dbus_message_new_signal("/noise", "org.example.Noise", "Noise");
    GUnixFDList* pDescriptors = g_unix_fd_list_new();
    for (int i = 0; i < 4; ++i) {
        g_unix_fd_list_append(pDescriptors, STDIN_FILENO, nullptr);
    }
    g_dbus_message_set_destination(pMessage, client.c_str());
    g_dbus_message_set_unix_fd_list(pMessage, pDescriptors);
    g_object_unref(pDescriptors);
    return pMessage;
}

/// Sends such signals until it is destroyed.
class CNoisyPeer {
  public:
    CNoisyPeer(const std::string& bus, const std::string& client)
        : m_pBus(g_dbus_connection_new_for_address_sync(
              bus.c_str(),
              static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
              nullptr, nullptr, nullptr)),
          m_Thread([this, client] { Send(client); }) {}
    ~CNoisyPeer() {
        m_bEnd = true;
        m_Thread.join();
        g_dbus_connection_close_sync(m_pBus, nullptr, nullptr);
        g_object_unref(m_pBus);
    }
    CNoisyPeer(const CNoisyPeer&) = delete;
    CNoisyPeer& operator=(const CNoisyPeer&) = delete;

  private:
    void Send(const std::string& client) {
        while (!m_bEnd) {
            GDBusMessage* pMessage = SignalWithDescriptors(client);
            g_dbus_connection_send_message(m_pBus, pMessage, G_DBUS_SEND_MESSAGE_FLAGS_NONE,
                                           nullptr, nullptr);
            g_dbus_connection_flush_sync(m_pBus, nullptr, nullptr);
            g_object_unref(pMessage);
        }
    }

    std::atomic<bool> m_bEnd{false};
    GDBusConnection* const m_pBus;
    std::thread m_Thread;
};

TEST_F(CGuestTest, IsLeftNoDescriptorsSentByOthers) {
    ExpectHost([this] {
        PlayUntilItArrives(*MakeCollector());
        const std::size_t descriptors = EntriesOf("/proc/self/fd");
        for (int i = 0; i < 20; ++i) {
            const std::size_t calls = m_Service.Calls("GetPolicyInfo").size();
            Collector collector = MakeCollector();
            m_Service.WaitForCalls("GetPolicyInfo", calls + 1, std::chrono::seconds(5));
            const CNoisyPeer peer(m_Bus.Address(),
                                  m_Service.Calls("GetPolicyInfo").back().strSender);
            Play(*collector);
            collector.reset();
        }
        // GDBus closes the receiver's connections on another thread, a moment later.
        return Eventually([&] { return EntriesOf("/proc/self/fd") <= descriptors; });
    });
}

}  // namespace
