// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYProcess.h"

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <new>

// The problem. A host may fork without exec. The child has a copy of the parent's memory but none
// of its threads: a lock that another thread held stays locked, a join never returns, and bytes
// that the child writes to the inherited bus connection mix with the parent's messages. Each call
// must therefore notice that it runs in a child. Players call often, so the check has to be cheap,
// and getpid is a system call.
//
// The idea. The kernel can clear a page of memory in each child (MADV_WIPEONFORK), even after forks
// that run no atfork handler. The page holds one number. A process that reads zero there increments
// s_nProcesses and stores the result; every later check is one memory read. The counter is ordinary
// memory, which a child inherits, so a child's number is greater than those of all its ancestors.
// Two children of one parent may get the same number, which does no harm: neither has objects of
// the other.
//
// What must always hold: once stored, the number of a process never changes, and no process has the
// number of an ancestor. Two threads of a new child may increment the counter at the same time; the
// compare-and-exchange keeps one number and returns it to both. If the kernel does not know
// MADV_WIPEONFORK, the process id serves as the number, and each check costs a system call.

namespace {

using Number = std::atomic<std::uint32_t>;

// A child inherits the count of its parent and continues from there.
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
