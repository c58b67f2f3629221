// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PlatformHost.h"

#include <chrono>
#include <cstdlib>
#include <utility>

namespace {

constexpr const char* kStore = "store/regdb.ini";

}  // namespace

CPlatformHostTest::CPlatformHostTest() {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    setenv("REGDB_FILE", (m_Folder.Path() / kStore).c_str(), 1);
    Store(0);
}

CPlatformHostTest::~CPlatformHostTest() {
    Ignore();
}

void CPlatformHostTest::Store(int value) const {
    m_Folder.Replace(kStore, "[db/tallyra]\nlog_on=" + std::to_string(value) + "\n");
}

int CPlatformHostTest::Watch(std::function<void()> work) {
    m_Work = std::move(work);
    return regdb_notify_key_changed(kWatchedKey, &CPlatformHostTest::OnChanged, this);
}

int CPlatformHostTest::Ignore() {
    return regdb_ignore_key_changed(kWatchedKey, &CPlatformHostTest::OnChanged);
}

bool CPlatformHostTest::WaitForCalls(int calls) {
    std::unique_lock lock(m_Mutex);
    return m_Changed.wait_for(lock, std::chrono::seconds(30), [&] { return m_nCalls >= calls; });
}

void CPlatformHostTest::OnChanged(struct _keynode_t* /*pNode*/, void* pThis) {
    auto* pHost = static_cast<CPlatformHostTest*>(pThis);
    if (pHost->m_Work) {
        pHost->m_Work();
    }
    const std::lock_guard lock(pHost->m_Mutex);
    ++pHost->m_nCalls;
    pHost->m_Changed.notify_all();
}
