// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYABANDONABLE_H
#define TALLYRA_TYABANDONABLE_H

#include <cstddef>
#include <new>
#include <utility>

/// A member, held by value, that its owner may leave as it is instead of destroying it: in a forked
/// child the member's threads are gone and its locks may be held for ever.
///
/// Threads: as the member's.
template <class Type>
class CTYAbandonable {
  public:
    template <class... Arguments>
    explicit CTYAbandonable(Arguments&&... arguments)
        : m_pMember(new (m_Storage) Type(std::forward<Arguments>(arguments)...)) {}
    ~CTYAbandonable() { Destroy(); }
    CTYAbandonable(const CTYAbandonable&) = delete;
    CTYAbandonable& operator=(const CTYAbandonable&) = delete;

    Type& operator*() { return *m_pMember; }
    Type* operator->() { return m_pMember; }

    /// Destroys the member now. It must not be used any more.
    void Destroy() {
        if (m_pMember != nullptr) {
            std::exchange(m_pMember, nullptr)->~Type();
        }
    }

    /// Leaves the member undestroyed.
    void Abandon() { m_pMember = nullptr; }

  private:
    alignas(Type) std::byte m_Storage[sizeof(Type)];
    Type* m_pMember;
};

#endif  // TALLYRA_TYABANDONABLE_H
