// SPDX-License-Identifier: Apache-2.0
//
// Start of a thread that no signal reaches, so that SIGINT and SIGTERM interrupt what the main thread waits in.
#pragma once
#include <cerrno>
#include <csignal>
#include <exception>
#include <pthread.h>
#include <system_error>
#include <thread>
#include <utility>

namespace corvane::base {

// Blocks all signals of the calling thread while it lives; a thread inherits the mask of its creator.
class SignalsBlocked {
public:
    SignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &former_);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &former_, nullptr); }
    SignalsBlocked(const SignalsBlocked &) = delete;
    SignalsBlocked &operator=(const SignalsBlocked &) = delete;

private:
    sigset_t former_{};
};

// Runs body() in a new thread, which the caller joins or detaches. False when there is none: thread is as it was and
// errno says why. name is a literal of at most 15 characters.
template <class Body>
[[nodiscard]] bool startThread(std::thread &thread, const char *name, Body body) noexcept {
    const SignalsBlocked blocked;
    try {
        thread = std::thread([name, run = std::move(body)]() mutable {
            pthread_setname_np(pthread_self(), name);
            run();
        });
        return true;
    } catch (const std::system_error &error) {
        errno = error.code().value();
    } catch (const std::exception &) { // no memory for what the thread starts with
        errno = ENOMEM;
    }
    return false;
}

} // namespace corvane::base
