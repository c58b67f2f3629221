// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_GST_TYFRAMECOUNT_H
#define TALLYRA_GST_TYFRAMECOUNT_H

#include <cstdint>
#include <map>
#include <mutex>

/// Adds up the frames of all elements of a pipeline. Elements start to count from 0 again, and come
/// and go; the sums never fall.
///
/// Threads: any; the mutex guards all members.
class CTYFrameCount {
  public:
    struct Sum {
        std::uint64_t dropped = 0;
        std::uint64_t rendered = 0;
    };

    /// Takes the count of one element since it began to count.
    /// @param pElement  only names the element, and is not used
    void Set(const void* pElement, std::uint64_t dropped, std::uint64_t rendered);
    /// The element is gone. A new one may have its address, and counts from zero.
    void Forget(const void* pElement);
    Sum Get() const;

  private:
    mutable std::mutex m_Mutex;
    // Guarded by m_Mutex.
    std::map<const void*, Sum> m_Last;
    Sum m_Sum;
};

#endif  // TALLYRA_GST_TYFRAMECOUNT_H
