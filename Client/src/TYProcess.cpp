// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYProcess.h"

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <new>

// The problem. A host may fork without exec. Its child has a copy of the parent's memory, but none
// of its threads: a lock that another thread held stays locked, a join never returns, and what the
// child writes to the copied bus connection lands in the middle of the parent's messages. Each
// call must therefore notice that it runs in a child. Players call often, so the check has to be
// cheap, and getpid is a system call.
//
// The idea. The kernel can clear a page of memory in each child (MADV_WIPEONFORK), also for forks
// that run no atfork handler. The page holds one number. A process that finds zero there draws the
// next number of s_nProcesses and stores it; every later check is a load. The counter is ordinary
// memory, which a child inherits, so a child's number is greater than those of all its ancestors.
// Two children of one parent may draw the same number, which does no harm: neither has objects of
// the other.
//
// What must always hold: a number once stored in a process's page never changes there, and no
// process has the number of an ancestor. Two threads of a new child may draw at the same time; the
// compare-and-exchange keeps one number and gives it to both. A kernel without MADV_WIPEONFORK
// leaves no page, and the process id serves as the number, at the price of a system call.

namespace {

using Number = std::atomic<std::uint32_t>;

// Inherited: a child goes on from its parent's count.
Number s_nProcesses{0};

/// @return a number that the kernel sets to zero in each child; null if the kernel cannot
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
