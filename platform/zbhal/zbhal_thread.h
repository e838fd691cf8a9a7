// SPDX-License-Identifier: Apache-2.0
//
// Starts a thread of the layer with all signals blocked, so that SIGINT and SIGTERM reach the main thread and interrupt
// what it waits in. Where the system has none to give, one line in the log says so and the result is not joinable.
#pragma once
#include "oru_log.h"
#include <csignal>
#include <exception>
#include <pthread.h>
#include <thread>
#include <utility>

namespace corvane::zbhal {

template <typename Body>
[[nodiscard]] std::thread startThread(const char *name, Body body) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread thread;
    try {
        thread = std::thread(std::move(body));
        pthread_setname_np(thread.native_handle(), name); // at most 15 characters
    } catch (const std::exception &failure) {             // no thread, or no memory for it
        oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_ERROR, "zbhal", "cannot start the thread %s: %s", name, failure.what());
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return thread;
}

} // namespace corvane::zbhal
