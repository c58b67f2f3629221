// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Progress.h"

#include <unistd.h>

#include <utility>

namespace {

constexpr std::chrono::seconds kQuiet{1};
constexpr std::chrono::milliseconds kPeriod{200};

}  // namespace

CProgress::CProgress(std::ostream& errors, std::string what, bool isShown)
    : m_Errors(errors), m_strWhat(std::move(what)) {
    if (isShown && isatty(STDERR_FILENO) == 1) {
        m_Printer = std::thread([this] { Run(); });
    }
}

CProgress::~CProgress() {
    if (m_Printer.joinable()) {
        {
            const std::lock_guard lock(m_Mutex);
            m_bEnded = true;
        }
        m_Ended.notify_one();
        m_Printer.join();
    }
    Erase();
}

void CProgress::Erase() {
    const std::lock_guard lock(m_Mutex);
    if (std::exchange(m_bPrinted, false)) {
        m_Errors << "\r\x1b[K" << std::flush;
    }
}

void CProgress::Run() {
    std::unique_lock lock(m_Mutex);
    Clock::time_point next = m_Begin + kQuiet;
    while (!m_Ended.wait_until(lock, next, [this] { return m_bEnded; })) {
        Print();
        next += kPeriod;
    }
}

void CProgress::Print() {
    m_bPrinted = true;
    m_Errors << '\r' << m_strWhat;
    if (const std::int64_t rows = m_nRows; rows > 0) {
        m_Errors << ": " << rows;
    }
    m_Errors << ", "
             << std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - m_Begin).count()
             << " s\x1b[K" << std::flush;
}
