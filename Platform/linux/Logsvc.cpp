// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CancellationDisabled.h"
#include "StandardError.h"

#include "logsvc.h"

// Without the source location: it would always be this file.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

constexpr const char* kJournalSocket = "/run/systemd/journal/socket";
constexpr int kOff = LOGSVC_ERROR + 1;

/// The number of lines dropped since the last written one.
std::atomic<unsigned> g_nDropped{0};

/// The settings from the environment, read once.
struct Settings {
    int level;
    bool journal;
};

struct Choice {
    const char* name;
    int value;
};

/// @return the choice that an environment variable names; `otherwise` if it is unset or unknown
template <std::size_t Size>
int FromEnvironment(const char* variable, const std::array<Choice, Size>& choices, int otherwise) {
    const char* value = std::getenv(variable);
    if (value == nullptr) {
        return otherwise;
    }
    for (const Choice& choice : choices) {
        if (std::strcmp(value, choice.name) == 0) {
            return choice.value;
        }
    }
    std::array<char, kLongestLine> line;
    const int length =
        std::snprintf(line.data(), line.size(), "%s: unknown value \"%.1000s\"\n", variable, value);
    WriteToStandardError({line.data(), length > 0 ? static_cast<std::size_t>(length) : 0});
    return otherwise;
}

int LevelFromEnvironment() {
    constexpr std::array<Choice, 4> choices{
        {{"debug", LOGSVC_DEBUG}, {"info", LOGSVC_INFO}, {"error", LOGSVC_ERROR}, {"off", kOff}}};
    return FromEnvironment("LOGSVC_LEVEL", choices, LOGSVC_INFO);
}

bool JournalFromEnvironment() {
    constexpr std::array<Choice, 2> choices{{{"journal", 1}, {"stderr", 0}}};
    return FromEnvironment("LOGSVC_OUTPUT", choices, access(kJournalSocket, W_OK) == 0 ? 1 : 0) !=
           0;
}

bool Exists(int priority) {
    return priority == LOGSVC_DEBUG || priority == LOGSVC_INFO || priority == LOGSVC_ERROR;
}

// If standard error is closed now, no line is ever written to it: the next file or socket that the
// host opens gets its number.
Settings ReadSettings() {
    const int savedErrno = errno;
    const CCancellationDisabled cancellationDisabled;
    Settings settings{LevelFromEnvironment(), JournalFromEnvironment()};
    if (!settings.journal && fcntl(STDERR_FILENO, F_GETFD) < 0) {
        settings.level = kOff;
    }
    errno = savedErrno;
    return settings;
}

const Settings& CurrentSettings() {
    static const Settings settings = ReadSettings();
    return settings;
}

int SyslogPriority(int priority) {
    constexpr int error = 3;
    constexpr int info = 6;
    constexpr int debug = 7;
    return priority >= LOGSVC_ERROR ? error : priority >= LOGSVC_INFO ? info : debug;
}

char Letter(int priority) {
    return priority >= LOGSVC_ERROR ? 'E' : priority >= LOGSVC_INFO ? 'I' : 'D';
}

/// sd_journal_send blocks while journald does not read and its queue is full. A probe socket that
/// is connected to journald is not writable then. A caller can block only if other writers fill the
/// queue between this check and the write.
/// @return whether a write would block; false if that cannot be determined
bool IsJournalFull() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, kJournalSocket, sizeof(address.sun_path) - 1);
    const int probe = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (probe < 0) {
        return false;
    }
    pollfd writable{probe, POLLOUT, 0};
    const bool full =
        connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
        poll(&writable, 1, 0) == 0;
    close(probe);
    return full;
}

/// @return 0 or a negative errno
int WriteToJournal(int priority, const char* tag, const char* text) {
    if (IsJournalFull()) {
        return -EAGAIN;
    }
    return sd_journal_send("PRIORITY=%d", SyslogPriority(priority), "SYSLOG_IDENTIFIER=%s", tag,
                           "MESSAGE=%s", text, nullptr);
}

// One write per line, so that lines of several threads do not mix.
int WriteToStderr(int priority, const char* tag, const char* text) {
    timespec now{};
    tm local{};
    clock_gettime(CLOCK_REALTIME, &now);
    localtime_r(&now.tv_sec, &local);
    std::array<char, kLongestLine> line;
    std::size_t length = std::strftime(line.data(), line.size(), "%m-%d %H:%M:%S", &local);
    const int rest = std::snprintf(line.data() + length, line.size() - length, ".%03ld %c/%s: %s",
                                   now.tv_nsec / 1000000, Letter(priority), tag, text);
    if (rest < 0) {
        return -EINVAL;
    }
    length += static_cast<std::size_t>(rest);
    length = length < line.size() ? length : line.size() - 1;
    if (line[length - 1] != '\n') {
        line[length++] = '\n';
    }
    return WriteToStandardError({line.data(), length});
}

int PrintLine(int priority, const char* tag, const char* text) {
    return CurrentSettings().journal ? WriteToJournal(priority, tag, text)
                                     : WriteToStderr(priority, tag, text);
}

int PrintDropped(unsigned dropped) {
    std::array<char, 32> text;
    std::snprintf(text.data(), text.size(), "%u lines dropped", dropped);
    return PrintLine(LOGSVC_ERROR, "LOGSVC", text.data());
}

// The line that reports dropped lines is written first. If that fails, the new line is dropped too.
int PrintAndCount(int priority, const char* tag, const char* text) {
    unsigned dropped = g_nDropped.exchange(0);
    int result = dropped != 0 ? PrintDropped(dropped) : 0;
    if (result == 0) {
        dropped = 0;
        result = PrintLine(priority, tag, text);
    }
    if (result != 0) {
        g_nDropped += dropped + 1;
    }
    return result;
}

LOGSVC_PRINTF(3, 0)
int Print(int priority, const char* tag, const char* format, va_list arguments) {
    std::array<char, kLongestLine> text;
    if (std::vsnprintf(text.data(), text.size(), format, arguments) < 0) {
        return -EINVAL;
    }
    return PrintAndCount(priority, tag, text.data());
}

}  // namespace

int logsvc_print(int buffer, int priority, const char* tag, const char* format, ...) {
    if (buffer != LOGSVC_MAIN || !Exists(priority) || format == nullptr) {
        return -EINVAL;
    }
    if (priority < CurrentSettings().level) {
        return 0;
    }
    const int savedErrno = errno;
    const CCancellationDisabled cancellationDisabled;
    va_list arguments;
    va_start(arguments, format);
    const int result = Print(priority, tag != nullptr ? tag : "", format, arguments);
    va_end(arguments);
    errno = savedErrno;
    return result;
}
