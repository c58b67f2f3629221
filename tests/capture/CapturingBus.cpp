// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CapturingBus.h"

#include <chrono>
#include <new>

DBusMessage* CCapturingBus::SendWithReplyAndBlock(DBusConnection* pConnection,
                                                  DBusMessage* pMessage, int timeoutMs,
                                                  DBusError* pError) {
    {
        std::unique_lock lock(m_Mutex);
        dbus_message_set_serial(pMessage, ++m_nSerial);
        char* pBytes = nullptr;
        int length = 0;
        if (dbus_message_marshal(pMessage, &pBytes, &length) == FALSE) {
            throw std::bad_alloc();
        }
        m_Bytes.append(pBytes, static_cast<std::size_t>(length));
        dbus_free(pBytes);
        m_bHeld = m_bHold;
        m_Changed.notify_all();
        m_Changed.wait(lock, [this] { return !m_bHold; });
        m_bHeld = false;
    }
    return CFakeBus::SendWithReplyAndBlock(pConnection, pMessage, timeoutMs, pError);
}

void CCapturingBus::Hold() {
    const std::lock_guard lock(m_Mutex);
    m_bHold = true;
}

bool CCapturingBus::AwaitHeld() {
    std::unique_lock lock(m_Mutex);
    return m_Changed.wait_for(lock, std::chrono::seconds(30), [this] { return m_bHeld; });
}

void CCapturingBus::Release() {
    const std::lock_guard lock(m_Mutex);
    m_bHold = false;
    m_Changed.notify_all();
}

std::string CCapturingBus::Bytes() {
    const std::lock_guard lock(m_Mutex);
    return m_Bytes;
}
