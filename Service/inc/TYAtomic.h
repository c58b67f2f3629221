// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYATOMIC_H
#define TALLYRA_TYATOMIC_H

#include <atomic>

/// A field that several threads use without a lock. It has the size of the value, and is read with
/// acquire order and written with release order. Reads and assignments look like those of a plain
/// field.
template <class Type>
class CTYAtomic {
  public:
    constexpr CTYAtomic(Type value = Type()) : m_Value(value) {}  // NOLINT: implicit on purpose

    operator Type() const { return m_Value.load(std::memory_order_acquire); }  // NOLINT: implicit
    Type operator=(Type value) {  // NOLINT: assignment of a value, as of a plain field
        m_Value.store(value, std::memory_order_release);
        return value;
    }

    /// Stores `value`.
    /// @return the previous value
    Type Exchange(Type value) { return m_Value.exchange(value, std::memory_order_acq_rel); }

    /// Adds one.
    void Increment() { m_Value.fetch_add(1, std::memory_order_acq_rel); }

    /// Stores `value` if the field holds `expected`.
    /// @return the previous value, which is `expected` on success
    Type CompareExchange(Type expected, Type value) {
        m_Value.compare_exchange_strong(expected, value, std::memory_order_acq_rel);
        return expected;
    }

  private:
    std::atomic<Type> m_Value;

    static_assert(std::atomic<Type>::is_always_lock_free);
};

static_assert(sizeof(CTYAtomic<bool>) == sizeof(bool));
static_assert(sizeof(CTYAtomic<int>) == sizeof(int));

#endif  // TALLYRA_TYATOMIC_H
