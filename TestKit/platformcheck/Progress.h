// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTKIT_PROGRESS_H
#define TALLYRA_TESTKIT_PROGRESS_H

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

/// What a check found.
enum class Verdict {
    NOT_ENDED,  ///< crashed, or still running
    HOLDS,
    BROKEN,
    NOT_TRIED,
};

/// How long a check waits to see that something does not happen.
constexpr std::chrono::milliseconds kQuiet{250};

/// How long several threads of a check call again and again.
constexpr std::chrono::milliseconds kRush{300};

/// What a child process tells the program that started it, in memory that both share.
///
/// Threads: any of the child; the parent reads. Each thread of the child marks its calls in a slot
/// of its own.
class CProgress {
  public:
    using Clock = std::chrono::steady_clock;

    /// A call that has not returned.
    struct Call {
        std::string name;
        std::chrono::nanoseconds age;
    };

    /// Marks a call for the length of a scope. The name must be a literal.
    class CMark {
      public:
        CMark(CProgress& progress, const char* pName);
        ~CMark();
        CMark(const CMark&) = delete;
        CMark& operator=(const CMark&) = delete;

      private:
        CProgress& m_Progress;
        const std::size_t m_nSlot;
        const char* const m_pOuter;
    };

    /// Ends this process with a verdict. Only the first verdict counts.
    [[noreturn]] void End(Verdict verdict, const std::string& text);

    Verdict Found() const { return m_Verdict; }
    std::string Text() const { return m_Text.data(); }
    /// From now on, calls may take that much longer, since the check itself holds them.
    void Allow(std::chrono::milliseconds time) { m_Allowed = time; }
    std::chrono::milliseconds Allowed() const { return m_Allowed; }
    /// @return the oldest call that has not returned
    std::optional<Call> OldestCall() const;

  private:
    struct Slot {
        std::atomic<const char*> pName{nullptr};
        std::atomic<Clock::rep> since{0};
    };

    std::size_t OwnSlot();

    std::array<Slot, 64> m_Slots;
    std::atomic<std::size_t> m_nSlots{0};
    std::atomic<bool> m_bEnding{false};
    std::atomic<std::chrono::milliseconds> m_Allowed{std::chrono::milliseconds(0)};
    std::atomic<Verdict> m_Verdict{Verdict::NOT_ENDED};
    std::array<char, 1024> m_Text{};
};

#endif  // TALLYRA_TESTKIT_PROGRESS_H
