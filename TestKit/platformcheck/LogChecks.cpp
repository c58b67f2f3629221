// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Trial.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <set>
#include <sstream>
#include <thread>

namespace {

constexpr const char* kTag = "TALLYRA";
constexpr const char* kMarker = "tallyra-check-platform";
constexpr int kWriters = 4;
constexpr int kLinesOfWriter = 50;

/// The log, if it can be read: what the platform writes to standard error and output, or else what
/// the command of --read-log prints.
class CLog {
  public:
    // Appending, so that writes of several threads do not share an offset.
    explicit CLog(CTrial& trial) : m_Trial(trial), m_nFile(memfd_create("log", MFD_CLOEXEC)) {
        fcntl(m_nFile, F_SETFL, O_APPEND);
        dup2(m_nFile, STDERR_FILENO);
        dup2(m_nFile, STDOUT_FILENO);
    }

    /// Waits until the log satisfies a condition.
    /// @return the log, whether it does or not
    std::string Await(const std::function<bool(const std::string&)>& condition) {
        std::string text = Read();
        const auto end = std::chrono::steady_clock::now() + m_Trial.Wanted().patience / 2;
        while (!condition(text) && std::chrono::steady_clock::now() < end) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            text = Read();
        }
        return text;
    }

  private:
    std::string Read() {
        if (!m_Trial.Wanted().readLog.empty()) {
            return m_Trial.Run("--read-log", m_Trial.Wanted().readLog);
        }
        std::string text(static_cast<std::size_t>(lseek(m_nFile, 0, SEEK_END)), '\0');
        const ssize_t size = pread(m_nFile, text.data(), text.size(), 0);
        text.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
        return text;
    }

    CTrial& m_Trial;
    const int m_nFile;
};

bool Has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

[[noreturn]] void NoLog(CTrial& trial) {
    trial.NotTried(
        "the lines are not on standard error; name a command that prints the log with "
        "--read-log");
}

std::string LastLineWith(const std::string& text, const std::string& part) {
    const std::size_t at = text.rfind(part);
    return text.substr(at, text.find('\n', at) - at);
}

void TryResults(CTrial& trial) {
    const auto& print = trial.Functions().logsvc_print;
    const CLog log(trial);
    for (const int priority : {LOGSVC_DEBUG, LOGSVC_INFO, LOGSVC_ERROR}) {
        trial.Succeed(print, LOGSVC_MAIN, priority, kTag, "%s: a line", kMarker);
    }
    trial.Succeed(print, LOGSVC_MAIN, LOGSVC_ERROR, static_cast<const char*>(nullptr),
                  "%s: a line without a tag", kMarker);
}

void TryFormat(CTrial& trial) {
    CLog log(trial);
    const std::string process = std::to_string(getpid());
    const std::string expected =
        std::string(kMarker) + ": " + process + "(42) > 7|   7|ab  |c|1.50|18446744073709551615|%";
    trial.Succeed(trial.Functions().logsvc_print, LOGSVC_MAIN, LOGSVC_ERROR, kTag,
                  "tallyra-check-platform: %s(%d) > %u|%4d|%-4s|%c|%.2f|%llu|%%", process.c_str(),
                  42, 7U, 7, "ab", 'c', 1.5, ~0ULL);
    const std::string text = log.Await([&](const std::string& all) { return Has(all, expected); });
    if (!Has(text, kMarker)) {
        NoLog(trial);
    }
    trial.Expect(Has(text, expected), "the log has \"" + LastLineWith(text, kMarker) +
                                          "\" instead of \"" + expected + "\"");
}

void TryRefusals(CTrial& trial) {
    const auto& print = trial.Functions().logsvc_print;
    const CLog log(trial);
    trial.Fail(" for an unknown buffer", {-EINVAL}, print, 77, LOGSVC_ERROR, kTag, "%s", kMarker);
    trial.Fail(" for an unknown priority", {-EINVAL}, print, LOGSVC_MAIN, 77, kTag, "%s", kMarker);
    trial.Fail(" for a NULL format", {-EINVAL}, print, LOGSVC_MAIN, LOGSVC_ERROR, kTag,
               static_cast<const char*>(nullptr));
}

void TryErrno(CTrial& trial) {
    const CLog log(trial);
    for (int i = 0; i < 100; ++i) {
        errno = ENOTTY;
        trial.Functions().logsvc_print(LOGSVC_MAIN, LOGSVC_ERROR, kTag, "%s: a line", kMarker);
        trial.Expect(errno == ENOTTY, "errno changed to " + std::to_string(errno));
    }
}

std::string LineOf(int writer, int number) {
    return "process " + std::to_string(getpid()) + " writer " + std::to_string(writer) + " line " +
           std::to_string(number) + " end";
}

// A full log may drop lines, and says so in the result.
std::set<std::string> WriteAtOnce(CTrial& trial) {
    std::vector<std::thread> writers;
    writers.reserve(kWriters);
    std::vector<std::set<std::string>> written(kWriters);
    for (int writer = 0; writer < kWriters; ++writer) {
        writers.push_back(trial.Start([&, writer] {
            for (int number = 0; number < kLinesOfWriter; ++number) {
                const std::string line = LineOf(writer, number);
                const int result = trial.Functions().logsvc_print(LOGSVC_MAIN, LOGSVC_ERROR, kTag,
                                                                  "%s: %s", kMarker, line.c_str());
                trial.Expect(result == 0 || result == -EAGAIN,
                             "logsvc_print returned " + std::to_string(result));
                if (result == 0) {
                    written[static_cast<std::size_t>(writer)].insert(line);
                }
            }
        }));
    }
    std::set<std::string> all;
    for (int writer = 0; writer < kWriters; ++writer) {
        writers[static_cast<std::size_t>(writer)].join();
        all.merge(written[static_cast<std::size_t>(writer)]);
    }
    return all;
}

std::string FirstMissing(const std::set<std::string>& lines, const std::string& text) {
    for (const std::string& line : lines) {
        if (!Has(text, std::string(kMarker) + ": " + line)) {
            return line;
        }
    }
    return "";
}

void TryThreads(CTrial& trial) {
    CLog log(trial);
    const std::set<std::string> lines = WriteAtOnce(trial);
    const std::string text =
        log.Await([&](const std::string& all) { return FirstMissing(lines, all).empty(); });
    if (!Has(text, kMarker)) {
        NoLog(trial);
    }
    const std::string missing = FirstMissing(lines, text);
    trial.Expect(missing.empty(),
                 "logsvc_print returned 0, but the log has no whole line \"" + missing + "\"");
}

}  // namespace

std::vector<Check> LogChecks() {
    return {
        {"logsvc.h", "logsvc_print returns 0, also below the level and without a tag", &TryResults},
        {"logsvc.h", "logsvc_print formats as printf does", &TryFormat},
        {"logsvc.h", "logsvc_print refuses unknown buffers, unknown priorities and a NULL format",
         &TryRefusals},
        {"logsvc.h", "logsvc_print preserves errno", &TryErrno},
        {"logsvc.h", "lines of several threads at once do not mix", &TryThreads},
    };
}
