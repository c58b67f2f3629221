// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "logsvc.h"

#include <systemd/sd-journal.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

constexpr const char* kJournalSocket = "/run/systemd/journal/socket";
constexpr int kNothing = LOGSVC_ERROR + 1;
constexpr std::size_t kLineSize = 4096;

/// What the environment asks for, read once.
struct Settings {
    int level;
    bool journal;
};

int LevelFromEnvironment() {
    const char* level = std::getenv("LOGSVC_LEVEL");
    if (level == nullptr) {
        return LOGSVC_INFO;
    }
    if (std::strcmp(level, "debug") == 0) {
        return LOGSVC_DEBUG;
    }
    if (std::strcmp(level, "error") == 0) {
        return LOGSVC_ERROR;
    }
    return std::strcmp(level, "off") == 0 ? kNothing : static_cast<int>(LOGSVC_INFO);
}

bool JournalFromEnvironment() {
    const char* output = std::getenv("LOGSVC_OUTPUT");
    if (output != nullptr && std::strcmp(output, "stderr") == 0) {
        return false;
    }
    if (output != nullptr && std::strcmp(output, "journal") == 0) {
        return true;
    }
    return access(kJournalSocket, W_OK) == 0;
}

const Settings& CurrentSettings() {
    static const Settings settings{LevelFromEnvironment(), JournalFromEnvironment()};
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

bool WriteToJournal(int priority, const char* tag, const char* text) {
    return sd_journal_send("PRIORITY=%d", SyslogPriority(priority), "SYSLOG_IDENTIFIER=%s", tag,
                           "MESSAGE=%s", text, nullptr) == 0;
}

// One write for a whole line: lines of several threads do not mix.
bool WriteToStderr(int priority, const char* tag, const char* text) {
    timespec now{};
    tm local{};
    clock_gettime(CLOCK_REALTIME, &now);
    localtime_r(&now.tv_sec, &local);
    std::array<char, kLineSize + 128> line;
    std::size_t length = std::strftime(line.data(), line.size(), "%m-%d %H:%M:%S", &local);
    const int rest = std::snprintf(line.data() + length, line.size() - length, ".%03ld %c/%s: %s",
                                   now.tv_nsec / 1000000, Letter(priority), tag, text);
    if (rest < 0) {
        return false;
    }
    length += static_cast<std::size_t>(rest);
    length = length < line.size() ? length : line.size() - 1;
    if (line[length - 1] != '\n') {
        length = length < line.size() - 1 ? length + 1 : length;
        line[length - 1] = '\n';
    }
    return write(STDERR_FILENO, line.data(), length) == static_cast<ssize_t>(length);
}

}  // namespace

int logsvc_print(int buffer, int priority, const char* tag, const char* format, ...) {
    if (priority < CurrentSettings().level) {
        return 0;
    }
    if (buffer != LOGSVC_MAIN || tag == nullptr || format == nullptr) {
        return -EINVAL;
    }
    const int savedErrno = errno;
    std::array<char, kLineSize> text;
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    const bool written =
        length >= 0 && (CurrentSettings().journal ? WriteToJournal(priority, tag, text.data())
                                                  : WriteToStderr(priority, tag, text.data()));
    errno = savedErrno;
    return written ? 0 : -EIO;
}
