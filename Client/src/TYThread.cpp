// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYThread.h"

#include "TYLog.h"

#include <pthread.h>
#include <sched.h>

#include <csignal>
#include <exception>
#include <new>
#include <utility>

#define TY_LOG_TAG TY_TAG

namespace {

/// Blocks all signals on this thread for a scope; threads made in it inherit that.
class CSignalsBlocked {
  public:
    CSignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &m_Before);
    }
    ~CSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_Before, nullptr); }
    CSignalsBlocked(const CSignalsBlocked&) = delete;
    CSignalsBlocked& operator=(const CSignalsBlocked&) = delete;

  private:
    sigset_t m_Before;
};

// A thread of the usual kind takes the processor from the player that has just woken it, and one
// that inherited a player's real-time priority would not give it back. Where this is refused the
// thread stays what it is.
void StandBackForPlayers() {
    const sched_param none{};
    pthread_setschedparam(pthread_self(), SCHED_BATCH, &none);
}

void RunBody(const std::function<void()>& body) {
    StandBackForPlayers();
    try {
        body();
    } catch (const std::bad_alloc& error) {
        TY_BAD_ALLOC(error);
    }
}

}  // namespace

bool StartThread(std::thread& thread, std::function<void()> body) {
    JoinThread(thread);
    const CSignalsBlocked signalsBlocked;
    try {
        thread = std::thread(RunBody, std::move(body));
        return true;
    } catch (const std::bad_alloc& error) {
        TY_BAD_ALLOC(error);
        return false;
    } catch (const std::exception& error) {
        TY_LOG_ERROR("can't start a thread. error : %s", error.what());
        return false;
    }
}

void JoinThread(std::thread& thread) {
    if (thread.joinable()) {
        thread.join();
    }
}
