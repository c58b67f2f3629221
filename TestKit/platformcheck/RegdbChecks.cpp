// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CallbackChecks.h"

#include <array>
#include <atomic>

namespace {

// A store that cannot be read is not the platform's fault.
constexpr std::initializer_list<int> kNoValue = {
    REGDB_ERROR_NO_KEY, REGDB_ERROR_NO_FILE, REGDB_ERROR_UNREADABLE, REGDB_ERROR_MALFORMED_FILE};
constexpr std::initializer_list<int> kInvalid = {REGDB_ERROR_INVALID_PARAMETER};
constexpr const char* kMissing = "db/tallyra-check/no_such_key";
constexpr int kUntouched = 4711;

CProbe*& ProbeOf(std::size_t which) {
    static std::array<CProbe*, 2> probes{};
    return probes[which];
}

template <std::size_t kWhich>
void OnKey(struct _keynode_t* /*pNode*/, void* pUserData) {
    ProbeOf(kWhich)->Enter(pUserData);
}

// A registration is named by its callback, so each needs a function of its own.
template <std::size_t kThread>
void OnNothing(struct _keynode_t* /*pNode*/, void* /*pUserData*/) {}

constexpr std::array<regdb_key_changed_cb, 2> kCallbacks = {&OnKey<0>, &OnKey<1>};

/// Watches of the key.
class CKeySource : public ICallbackSource {
  public:
    explicit CKeySource(CTrial& trial) : m_Trial(trial) { m_Trial.SetKey(0); }

    void Register(std::size_t which, CProbe& probe) override {
        ProbeOf(which) = &probe;
        m_Trial.Succeed(m_Trial.Functions().regdb_notify_key_changed, Key(), kCallbacks[which],
                        &probe);
    }
    int Remove(std::size_t which) override {
        return m_Trial.Functions().regdb_ignore_key_changed(Key(), kCallbacks[which]);
    }
    const char* NameOfRemoval() const override { return "regdb_ignore_key_changed"; }
    void Change() override {
        m_nValue = 1 - m_nValue;
        m_Trial.SetKey(m_nValue);
    }
    const char* NameOfChange() const override { return "the key"; }

    const char* Key() const { return m_Trial.Wanted().key.c_str(); }

  private:
    CTrial& m_Trial;
    int m_nValue = 0;
};

void ExpectValue(CTrial& trial, int expected) {
    trial.SetKey(expected);
    int value = kUntouched;
    trial.Succeed(trial.Functions().regdb_get_bool, trial.Wanted().key.c_str(), &value);
    trial.Expect(value == expected, "regdb_get_bool gave " + std::to_string(value) +
                                        " when the key had been set to " +
                                        std::to_string(expected));
}

void TryValue(CTrial& trial) {
    ExpectValue(trial, 1);
    ExpectValue(trial, 0);
}

void TryMissing(CTrial& trial) {
    int value = kUntouched;
    trial.Fail(" for a key that does not exist", kNoValue, trial.Functions().regdb_get_bool,
               kMissing, &value);
    trial.Expect(value == kUntouched, "regdb_get_bool failed and changed the value");
}

void TryNull(CTrial& trial) {
    PlatformFunctions& platform = trial.Functions();
    int value = 0;
    trial.Fail(" for NULL", kInvalid, platform.regdb_get_bool, nullptr, &value);
    trial.Fail(" for NULL", kInvalid, platform.regdb_get_bool, kMissing, nullptr);
    trial.Fail(" for NULL", kInvalid, platform.regdb_notify_key_changed, nullptr, &OnNothing<0>,
               nullptr);
    trial.Fail(" for NULL", kInvalid, platform.regdb_notify_key_changed, kMissing, nullptr,
               nullptr);
    trial.Fail(" for NULL", kInvalid, platform.regdb_ignore_key_changed, nullptr, &OnNothing<0>);
    trial.Fail(" for NULL", kInvalid, platform.regdb_ignore_key_changed, kMissing, nullptr);
}

void TryUnregistered(CTrial& trial) {
    trial.Fail(" for a callback that is not registered", {REGDB_ERROR_NOT_REGISTERED},
               trial.Functions().regdb_ignore_key_changed, kMissing, &OnNothing<0>);
}

// The library watches a key before anybody has set it.
void TryWatchOfMissing(CTrial& trial) {
    PlatformFunctions& platform = trial.Functions();
    trial.Succeed(platform.regdb_notify_key_changed, kMissing, &OnNothing<0>, nullptr);
    trial.Succeed(platform.regdb_ignore_key_changed, kMissing, &OnNothing<0>);
}

void TryThreads(CTrial& trial) {
    constexpr std::array<regdb_key_changed_cb, 4> kOwn = {&OnNothing<0>, &OnNothing<1>,
                                                          &OnNothing<2>, &OnNothing<3>};
    std::atomic<std::size_t> threads{0};
    trial.AtOnce([&] {
        thread_local const regdb_key_changed_cb callback = kOwn[threads++ % kOwn.size()];
        int value = 0;
        trial.Fail(" for a key that does not exist", kNoValue, trial.Functions().regdb_get_bool,
                   kMissing, &value);
        trial.Succeed(trial.Functions().regdb_notify_key_changed, kMissing, callback, nullptr);
        trial.Succeed(trial.Functions().regdb_ignore_key_changed, kMissing, callback);
    });
}

void TryKeyReport(CTrial& trial) {
    CKeySource source(trial);
    TryReport(trial, source);
}

void TryKeyCallsInside(CTrial& trial) {
    CKeySource source(trial);
    TryCallsInside(trial, source, [&] {
        int value = 0;
        trial.Succeed(trial.Functions().regdb_get_bool, source.Key(), &value);
        TryWatchOfMissing(trial);
    });
}

void TryNoKeyReportAfterRemoval(CTrial& trial) {
    CKeySource source(trial);
    TryNoneAfterRemoval(trial, source);
}

void TryKeyRemovalWaits(CTrial& trial) {
    CKeySource source(trial);
    TryRemovalWaits(trial, source, source.NameOfRemoval(), [&] { return source.Remove(0); });
}

void TryKeyRemovalInside(CTrial& trial) {
    CKeySource source(trial);
    TryRemovalInside(trial, source, source.NameOfRemoval(), [&] { return source.Remove(0); });
}

}  // namespace

std::vector<Check> RegdbChecks() {
    return {
        {"regdb.h", "regdb_get_bool reads the value that was set", &TryValue},
        {"regdb.h", "a missing key is an error and leaves the value as it is", &TryMissing},
        {"regdb.h", "NULL is an error", &TryNull},
        {"regdb.h", "a key that does not exist yet can be watched", &TryWatchOfMissing},
        {"regdb.h", "removing what is not registered is an error", &TryUnregistered},
        {"regdb.h", "a change calls back, on a thread of the platform and without a main loop",
         &TryKeyReport},
        {"regdb.h", "a callback may call the platform", &TryKeyCallsInside},
        {"regdb.h", "no callback starts after regdb_ignore_key_changed has returned",
         &TryNoKeyReportAfterRemoval},
        {"regdb.h", "regdb_ignore_key_changed waits for the running callback", &TryKeyRemovalWaits},
        {"regdb.h", "a callback may remove itself", &TryKeyRemovalInside},
        {"regdb.h", "several threads may call at once", &TryThreads},
    };
}
