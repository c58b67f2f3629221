// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYThread.h"

#include "TYLog.h"
#include "TYSignalsBlocked.h"

#include <pthread.h>
#include <sched.h>

#include <exception>
#include <new>
#include <utility>

#define TY_LOG_TAG TY_TAG

namespace {

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
    const CTYSignalsBlocked signalsBlocked;
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
