// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Progress.h"

#include <unistd.h>

#include <utility>

namespace {

constexpr std::chrono::seconds kQuiet{1};
constexpr std::chrono::milliseconds kPeriod{200};
// Steps of SQLite's virtual machine between two looks at the clock: some milliseconds.
constexpr int kSteps = 100'000;

}  // namespace

CProgress::CProgress(std::ostream& errors, CTYDatabase& database, std::string what, bool isShown)
    : m_Errors(errors),
      m_Database(database),
      m_strWhat(std::move(what)),
      m_bShown(isShown && isatty(STDERR_FILENO) == 1),
      m_Next(m_Begin + kQuiet) {
    if (m_bShown) {
        sqlite3_progress_handler(m_Database.Handle(), kSteps, &OnSteps, this);
    }
}

CProgress::~CProgress() {
    if (m_bShown) {
        sqlite3_progress_handler(m_Database.Handle(), 0, nullptr, nullptr);
    }
    Erase();
}

void CProgress::Erase() {
    if (std::exchange(m_bPrinted, false)) {
        m_Errors << "\r\x1b[K" << std::flush;
    }
}

/// @return 0, so that SQLite goes on
int CProgress::OnSteps(void* pSelf) {
    static_cast<CProgress*>(pSelf)->Update();
    return 0;
}

void CProgress::Update() {
    const Clock::time_point now = Clock::now();
    if (now < m_Next) {
        return;
    }
    m_Next = now + kPeriod;
    m_bPrinted = true;
    m_Errors << '\r' << m_strWhat;
    if (m_nRows > 0) {
        m_Errors << ": " << m_nRows;
    }
    m_Errors << ", " << std::chrono::duration_cast<std::chrono::seconds>(now - m_Begin).count()
             << " s\x1b[K" << std::flush;
}
