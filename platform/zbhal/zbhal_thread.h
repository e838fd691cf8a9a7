// SPDX-License-Identifier: Apache-2.0
//
// Starts a thread of the layer with all signals blocked, so that SIGINT and SIGTERM reach the main thread and interrupt
// what it waits in.
#pragma once
#include <csignal>
#include <pthread.h>
#include <thread>
#include <utility>

namespace corvane::zbhal {

template <typename Body>
std::thread startThread(const char *name, Body body) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread thread(std::move(body));
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    pthread_setname_np(thread.native_handle(), name); // at most 15 characters
    return thread;
}

} // namespace corvane::zbhal
