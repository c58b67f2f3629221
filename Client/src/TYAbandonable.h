// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYABANDONABLE_H
#define TALLYRA_TYABANDONABLE_H

#include <cstddef>
#include <new>
#include <utility>

/// Holds a member by value whose destruction the owner can prevent. In a forked child the member's
/// threads do not exist and its locks may stay locked, so its destructor could block forever.
///
/// Threads: the owner calls Destroy and Abandon, one at a time. The member has its own rules.
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

    /// Destroys the member now. The member must not be used afterwards.
    void Destroy() {
        if (m_pMember != nullptr) {
            std::exchange(m_pMember, nullptr)->~Type();
        }
    }

    /// From here on, neither Destroy nor the destructor destroys the member.
    void Abandon() { m_pMember = nullptr; }

  private:
    alignas(Type) std::byte m_Storage[sizeof(Type)];
    Type* m_pMember;
};

#endif  // TALLYRA_TYABANDONABLE_H
