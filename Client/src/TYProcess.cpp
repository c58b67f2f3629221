// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYProcess.h"

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <new>

namespace {

using Number = std::atomic<std::uint32_t>;

// Counts on through the generations: each child counts on from its parent's number.
Number s_nProcesses{0};

/// @return a number that is zero again in each child; null where the kernel cannot do that
Number* MakeWipedNumber() {
    const auto size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    void* pPage = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pPage == MAP_FAILED) {
        return nullptr;
    }
    if (madvise(pPage, size, MADV_WIPEONFORK) != 0) {
        munmap(pPage, size);
        return nullptr;
    }
    return new (pPage) Number(0);
}

}  // namespace

std::uint32_t CTYProcess::Current() noexcept {
    static Number* const pNumber = MakeWipedNumber();
    if (pNumber == nullptr) {
        return static_cast<std::uint32_t>(getpid());
    }
    std::uint32_t number = pNumber->load(std::memory_order_acquire);
    if (number != 0) {
        return number;
    }
    const std::uint32_t next = s_nProcesses.fetch_add(1) + 1;
    return pNumber->compare_exchange_strong(number, next) ? next : number;
}
