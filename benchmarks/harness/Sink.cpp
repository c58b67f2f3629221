// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Sink.h"

#include "Wire.h"

#include <dbus/dbus.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <new>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace {

constexpr useconds_t kLookPeriodUs = 1000;

CSink::Counters* ShareCounters() {
    void* pMemory = mmap(nullptr, sizeof(CSink::Counters), PROT_READ | PROT_WRITE,
                         MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (pMemory == MAP_FAILED) {
        throw std::system_error(errno, std::generic_category(), "mmap");
    }
    return new (pMemory) CSink::Counters{};
}

/// The name of the called function, in the first triple.
std::string_view FunctionOf(DBusMessageIter* pIterator) {
    dbus_message_iter_next(pIterator);
    dbus_message_iter_next(pIterator);
    const char* pName = "";
    if (dbus_message_iter_get_arg_type(pIterator) == DBUS_TYPE_STRING) {
        dbus_message_iter_get_basic(pIterator, &pName);
    }
    return pName;
}

// Only an image of the right length is a record.
std::int64_t CountRecords(DBusMessageIter* pIterator) {
    std::int64_t records = 0;
    while (dbus_message_iter_next(pIterator) != 0) {
        if (dbus_message_iter_get_arg_type(pIterator) == DBUS_TYPE_ARRAY) {
            records += dbus_message_iter_get_element_count(pIterator) == kImageBytes ? 1 : 0;
        }
    }
    return records;
}

void AppendInt(DBusMessageIter* pIterator, dbus_int32_t value) {
    dbus_message_iter_append_basic(pIterator, DBUS_TYPE_INT32, &value);
}

// Status 1 and result 1, a triple each.
void Accept(DBusConnection* pConnection, DBusMessage* pCall) {
    const MessagePtr reply(dbus_message_new_method_return(pCall));
    DBusMessageIter iterator;
    dbus_message_iter_init_append(reply.get(), &iterator);
    for (const dbus_int32_t index : {0, 1}) {
        AppendInt(&iterator, index);
        AppendInt(&iterator, kIntType);
        AppendInt(&iterator, 1);
    }
    dbus_connection_send(pConnection, reply.get(), nullptr);
    dbus_connection_flush(pConnection);
}

// Counts after replying: a record counts once it was accepted.
void Answer(DBusConnection* pConnection, DBusMessage* pCall, CSink::Counters& counters) {
    DBusMessageIter iterator;
    if (dbus_message_get_type(pCall) != DBUS_MESSAGE_TYPE_METHOD_CALL ||
        dbus_message_iter_init(pCall, &iterator) == 0) {
        return;
    }
    const std::string_view function = FunctionOf(&iterator);
    const std::int64_t records = function == "SendData" ? CountRecords(&iterator) : 0;
    Accept(pConnection, pCall);
    counters.records += records;
    counters.policies += function == "GetPolicyInfo" ? 1 : 0;
}

[[noreturn]] void Serve(const std::string& address, CSink::Counters& counters) {
    // It must not outlive its parent.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    DBusConnection* pConnection = dbus_connection_open_private(address.c_str(), nullptr);
    if (pConnection == nullptr || dbus_bus_register(pConnection, nullptr) == 0 ||
        dbus_bus_request_name(pConnection, kServiceName, DBUS_NAME_FLAG_DO_NOT_QUEUE, nullptr) !=
            DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER) {
        _exit(1);
    }
    counters.serving = true;
    while (dbus_connection_read_write(pConnection, -1) != 0) {
        while (DBusMessage* pMessage = dbus_connection_pop_message(pConnection)) {
            Answer(pConnection, pMessage, counters);
            dbus_message_unref(pMessage);
        }
    }
    _exit(0);
}

}  // namespace

CSink::CSink(const std::string& address) : m_pCounters(ShareCounters()), m_nPid(fork()) {
    if (m_nPid < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (m_nPid == 0) {
        Serve(address, *m_pCounters);
    }
    while (!m_pCounters->serving) {
        if (waitpid(m_nPid, nullptr, WNOHANG) != 0) {
            throw std::runtime_error("the counting service does not get its name");
        }
        usleep(kLookPeriodUs);
    }
}

CSink::~CSink() {
    kill(m_nPid, SIGKILL);
    waitpid(m_nPid, nullptr, 0);
    munmap(m_pCounters, sizeof(*m_pCounters));
}

void CSink::Pause() const {
    kill(m_nPid, SIGSTOP);
}

void CSink::Resume() const {
    kill(m_nPid, SIGCONT);
}
