// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CallbackChecks.h"

#include <atomic>

namespace {

/// Holds a callback until it is opened.
class CHold {
  public:
    void Wait() {
        std::unique_lock lock(m_Mutex);
        m_Opened.wait(lock, [this] { return m_bOpen; });
    }
    void Open() {
        const std::lock_guard lock(m_Mutex);
        m_bOpen = true;
        m_Opened.notify_all();
    }

  private:
    std::mutex m_Mutex;
    std::condition_variable m_Opened;
    bool m_bOpen = false;
};

std::string Milliseconds(std::chrono::milliseconds time) {
    return std::to_string(time.count()) + " ms";
}

void ProvokeCall(CTrial& trial, ICallbackSource& source, CProbe& probe) {
    source.Change();
    const auto patience = trial.Wanted().patience;
    trial.Expect(probe.AwaitBegun(1, patience), std::string("no callback within ") +
                                                    Milliseconds(patience) + " after " +
                                                    source.NameOfChange() + " had changed");
}

// Only a hanging call can take this long, and the parent ends the process before.
void AwaitEnd(CTrial& trial, CProbe& probe) {
    trial.Expect(probe.AwaitEnded(1, trial.Wanted().patience * 4), "the callback did not return");
}

}  // namespace

void CProbe::Enter(const void* pUserData) {
    {
        const std::lock_guard lock(m_Mutex);
        if (std::this_thread::get_id() == m_OwnThread) {
            m_bOnOwnThread = true;
            return;
        }
        ++m_nBegun;
        m_bOtherData = m_bOtherData || pUserData != this;
        m_Changed.notify_all();
    }
    if (m_Work) {
        m_Work();
    }
    const std::lock_guard lock(m_Mutex);
    ++m_nEnded;
    m_Changed.notify_all();
}

bool CProbe::AwaitBegun(int calls, std::chrono::milliseconds time) {
    std::unique_lock lock(m_Mutex);
    return m_Changed.wait_for(lock, time, [&] { return m_nBegun >= calls; });
}

bool CProbe::AwaitEnded(int calls, std::chrono::milliseconds time) {
    std::unique_lock lock(m_Mutex);
    return m_Changed.wait_for(lock, time, [&] { return m_nEnded >= calls; });
}

int CProbe::Begun() {
    const std::lock_guard lock(m_Mutex);
    return m_nBegun;
}

bool CProbe::WasOnOwnThread() {
    const std::lock_guard lock(m_Mutex);
    return m_bOnOwnThread;
}

bool CProbe::HadOtherData() {
    const std::lock_guard lock(m_Mutex);
    return m_bOtherData;
}

void TryReport(CTrial& trial, ICallbackSource& source) {
    CProbe probe;
    source.Register(0, probe);
    trial.Expect(!probe.WasOnOwnThread(), "the callback ran on the thread that registered it");
    ProvokeCall(trial, source, probe);
    AwaitEnd(trial, probe);
    trial.Expect(!probe.HadOtherData(), "the callback got other user data than was registered");
    source.Remove(0);
}

void TryCallsInside(CTrial& trial, ICallbackSource& source, const std::function<void()>& calls) {
    CProbe probe(calls);
    source.Register(0, probe);
    ProvokeCall(trial, source, probe);
    AwaitEnd(trial, probe);
    source.Remove(0);
}

// A second registration shows when the change has arrived.
void TryNoneAfterRemoval(CTrial& trial, ICallbackSource& source) {
    CProbe removed;
    CProbe witness;
    source.Register(0, removed);
    source.Register(1, witness);
    ProvokeCall(trial, source, removed);
    trial.Expect(source.Remove(0) == 0,
                 std::string(source.NameOfRemoval()) + " failed for what was registered");
    const int before = removed.Begun();
    const int seen = witness.Begun();
    source.Change();
    trial.Expect(
        witness.AwaitBegun(seen + 1, trial.Wanted().patience),
        std::string("another registration got no callback after ") + source.NameOfRemoval());
    std::this_thread::sleep_for(kQuiet);
    trial.Expect(removed.Begun() == before, std::string("a callback started after ") +
                                                source.NameOfRemoval() + " had returned");
    source.Remove(1);
}

void TryRemovalWaits(CTrial& trial, ICallbackSource& source, const char* pName,
                     const std::function<int()>& remove) {
    CHold hold;
    CProbe probe([&] { hold.Wait(); });
    source.Register(0, probe);
    ProvokeCall(trial, source, probe);
    std::atomic<bool> isRemoved{false};
    trial.Allow(kQuiet);
    std::thread remover = trial.Start([&] {
        trial.Expect(remove() == 0, std::string(pName) + " failed while the callback was running");
        isRemoved = true;
    });
    std::this_thread::sleep_for(kQuiet);
    trial.Expect(!isRemoved, std::string(pName) + " returned while the callback was running");
    hold.Open();
    remover.join();
}

void TryRemovalInside(CTrial& trial, ICallbackSource& source, const char* pName,
                      const std::function<int()>& remove) {
    std::atomic<int> result{0};
    std::atomic<bool> isRemoved{false};
    CProbe probe([&] {
        if (!isRemoved.exchange(true)) {
            result = remove();
        }
    });
    source.Register(0, probe);
    ProvokeCall(trial, source, probe);
    AwaitEnd(trial, probe);
    trial.Expect(result == 0,
                 std::string(pName) + " returned " + std::to_string(result) + " in the callback");
}
