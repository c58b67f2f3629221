// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYUNDESTROYED_H
#define TALLYRA_TYUNDESTROYED_H

#include <cstddef>
#include <new>

/// An object for static storage that is made in place and never destroyed: while a host exits, the
/// library's threads still run, and a collector may be deleted later than any static object goes.
template <class Type>
class CTYUndestroyed {
  public:
    CTYUndestroyed() : m_pObject(new (m_Storage) Type) {}
    CTYUndestroyed(const CTYUndestroyed&) = delete;
    CTYUndestroyed& operator=(const CTYUndestroyed&) = delete;

    Type& Get() { return *m_pObject; }

  private:
    alignas(Type) std::byte m_Storage[sizeof(Type)];
    Type* const m_pObject;
};

#endif  // TALLYRA_TYUNDESTROYED_H
