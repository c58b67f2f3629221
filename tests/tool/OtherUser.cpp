// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "OtherUser.h"

#include <dbus/dbus.h>

#include <grp.h>
#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <functional>
#include <memory>

namespace {

constexpr int kTimeoutMs = 20'000;

struct Unref {
    void operator()(DBusMessage* pMessage) const { dbus_message_unref(pMessage); }
};
using MessagePtr = std::unique_ptr<DBusMessage, Unref>;
using Task = std::function<std::string(DBusConnection*, DBusError*)>;

std::string OnBus(const std::string& address, const Task& task) {
    DBusError error = DBUS_ERROR_INIT;
    DBusConnection* pConnection = dbus_connection_open_private(address.c_str(), &error);
    if (pConnection != nullptr) {
        dbus_connection_set_exit_on_disconnect(pConnection, 0);
    }
    const bool onBus = pConnection != nullptr && dbus_bus_register(pConnection, &error) != 0;
    std::string outcome = onBus ? task(pConnection, &error) : "no connection";
    if (dbus_error_is_set(&error) != 0) {
        outcome = error.name;
    }
    dbus_error_free(&error);
    if (pConnection != nullptr) {
        dbus_connection_close(pConnection);
        dbus_connection_unref(pConnection);
    }
    return outcome;
}

bool Become(uid_t user) {
    return user == getuid() || (setgroups(0, nullptr) == 0 && setresgid(user, user, user) == 0 &&
                                setresuid(user, user, user) == 0);
}

// Only what the child does as another user is done there: no thread and no library of the test runs
// in it.
std::string As(uid_t user, const std::string& address, const Task& task) {
    std::array<int, 2> fds{};
    if (pipe(fds.data()) != 0) {
        return "no pipe";
    }
    const pid_t pid = fork();
    if (pid == 0) {
        const std::string outcome = Become(user) ? OnBus(address, task) : "not that user";
        const ssize_t written = write(fds[1], outcome.data(), outcome.size());
        _exit(written == static_cast<ssize_t>(outcome.size()) ? 0 : 1);
    }
    close(fds[1]);
    std::array<char, 256> outcome{};
    const ssize_t size = read(fds[0], outcome.data(), outcome.size());
    close(fds[0]);
    waitpid(pid, nullptr, 0);
    return {outcome.data(), static_cast<std::size_t>(size > 0 ? size : 0)};
}

MessagePtr KickTo(const Method& method) {
    MessagePtr call(dbus_message_new_method_call(kService, method.path.c_str(),
                                                 method.interface.c_str(), method.member.c_str()));
    const char* pKick = "Kick";
    for (dbus_int32_t index = 0; index < 2; ++index) {
        const dbus_int32_t text = 1;
        dbus_message_append_args(call.get(), DBUS_TYPE_INT32, &index, DBUS_TYPE_INT32, &text,
                                 DBUS_TYPE_STRING, &pKick, DBUS_TYPE_INVALID);
    }
    return call;
}

std::string StatusOf(DBusMessage* pReply) {
    dbus_int32_t index = -1;
    dbus_int32_t type = -1;
    dbus_int32_t status = -1;
    const bool read =
        dbus_message_get_args(pReply, nullptr, DBUS_TYPE_INT32, &index, DBUS_TYPE_INT32, &type,
                              DBUS_TYPE_INT32, &status, DBUS_TYPE_INVALID) != 0;
    return read ? "status " + std::to_string(status) : "another reply";
}

}  // namespace

std::string CallAs(uid_t user, const std::string& address, const Method& method) {
    return As(user, address, [&](DBusConnection* pConnection, DBusError* pError) -> std::string {
        const MessagePtr reply(dbus_connection_send_with_reply_and_block(
            pConnection, KickTo(method).get(), kTimeoutMs, pError));
        return reply != nullptr ? StatusOf(reply.get()) : "no reply";
    });
}

std::string OwnNameAs(uid_t user, const std::string& address) {
    return As(user, address, [](DBusConnection* pConnection, DBusError* pError) {
        const int result =
            dbus_bus_request_name(pConnection, kService, DBUS_NAME_FLAG_DO_NOT_QUEUE, pError);
        return result == DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER ? "owner" : "not the owner";
    });
}

bool IsOwned(const std::string& address) {
    const Task ask = [](DBusConnection* pConnection, DBusError* pError) {
        return dbus_bus_name_has_owner(pConnection, kService, pError) != 0 ? "owned" : "free";
    };
    return As(getuid(), address, ask) == "owned";
}

std::optional<uid_t> UserCalled(const char* pName) {
    const passwd* pUser = getpwnam(pName);
    return pUser != nullptr ? std::optional(pUser->pw_uid) : std::nullopt;
}

bool MayRun(uid_t user, const std::string& program) {
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(Become(user) && access(program.c_str(), X_OK) == 0 ? 0 : 1);
    }
    int status = -1;
    waitpid(pid, &status, 0);
    return status == 0;
}
