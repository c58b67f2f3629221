// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYABANDONABLE_H
#define TALLYRA_TYABANDONABLE_H

#include <cstddef>
#include <new>
#include <utility>

/// A member, held by value, that its owner need not destroy. In a forked child the member's threads
/// are gone and its locks may stay locked, so its destructor could block forever.
///
/// Threads: those of the member.
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

    /// Destroys the member now. It must not be used afterwards.
    void Destroy() {
        if (m_pMember != nullptr) {
            std::exchange(m_pMember, nullptr)->~Type();
        }
    }

    /// Prevents the destruction of the member.
    void Abandon() { m_pMember = nullptr; }

  private:
    alignas(Type) std::byte m_Storage[sizeof(Type)];
    Type* m_pMember;
};

#endif  // TALLYRA_TYABANDONABLE_H
