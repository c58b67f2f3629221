// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYPLAYBACKID_H
#define TALLYRA_TYPLAYBACKID_H

#include <array>
#include <atomic>
#include <cstddef>

/// The identifier of the current playback; empty while there is none.
///
/// Threads: any, without a lock. The first character is stored last and cleared first, so that
/// whoever sees an identifier sees all of it. Players that start and stop one collector at the same
/// moment may mix their identifiers; which is what they do with their records anyway.
class CTYPlaybackID {
  public:
    static constexpr std::size_t SIZE = 25;
    using Text = char[SIZE];

    bool IsEmpty() const { return m_Text[0].load(std::memory_order_acquire) == '\0'; }

    void Set(const Text& text) {
        for (std::size_t i = 1; i < SIZE; ++i) {
            m_Text[i].store(text[i], std::memory_order_relaxed);
        }
        m_Text[0].store(text[0], std::memory_order_release);
    }

    void Clear() {
        for (auto& character : m_Text) {
            character.store('\0', std::memory_order_release);
        }
    }

    /// Copies the identifier; an empty one when it is being cleared at this moment.
    void CopyTo(Text& text) const {
        for (std::size_t i = 0; i < SIZE; ++i) {
            text[i] = m_Text[i].load(std::memory_order_acquire);
        }
        // Either may be so alone, when it was set or cleared in between.
        if (text[0] == '\0' || IsEmpty()) {
            for (char& character : text) {
                character = '\0';
            }
        }
    }

  private:
    std::array<std::atomic<char>, SIZE> m_Text{};
};

static_assert(sizeof(CTYPlaybackID) == CTYPlaybackID::SIZE);

#endif  // TALLYRA_TYPLAYBACKID_H
