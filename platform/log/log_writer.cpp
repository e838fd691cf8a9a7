// SPDX-License-Identifier: Apache-2.0
#include "log_writer.h"
#include "base/thread.h"
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>
#include <utility>

namespace {

using corvane::base::Descriptor;

constexpr const char *own_tag = "oru_log";
constexpr Log_writer::Milliseconds switch_limit{1000};   // for the lines of the sink before
constexpr Log_writer::Milliseconds last_line_limit{100}; // for each of two steps
constexpr int pause_ms = 20;                             // where a descriptor that is said to be writable takes nothing
constexpr timespec millisecond = {0, 1000000};
constexpr timespec gather_time = {0, 2000000};

const auto never_wait = [](int /*descriptor*/, bool /*pause*/) { return false; };

spdlog::details::log_msg messageOf(const Log_line &line) {
    return {line.head.time, spdlog::source_loc{}, line.tag(), line.head.level, line.text()};
}

Descriptor hangUpDescriptor() {
    sigset_t hang_up;
    sigemptyset(&hang_up);
    sigaddset(&hang_up, SIGHUP);
    return Descriptor(signalfd(-1, &hang_up, SFD_CLOEXEC | SFD_NONBLOCK));
}

} // namespace

void Log_writer::log(spdlog::level::level_enum level, std::string_view tag, std::string_view text) {
    bool wanted = false;
    Stage stage = Stage::DIRECT;
    {
        const std::lock_guard guard(lock_);
        if (stage_ == Stage::ARMED) {
            startThread();
        }
        if (stage_ == Stage::QUEUED) {
            enqueue(level, tag, text);
            wanted = std::exchange(idle_, false);
        }
        stage = stage_;
    }
    if (wanted) {
        wake();
    } else if (stage == Stage::DIRECT) {
        const std::lock_guard guard(sink_lock_);
        write({tag, level, text}, never_wait);
    }
}

void Log_writer::logAtOnce(spdlog::level::level_enum level, std::string_view tag, std::string_view text) {
    const spdlog::details::log_msg message(tag, level, text);
    flush(last_line_limit);
    std::unique_lock guard(sink_lock_, std::try_to_lock);
    for (int tries = 0; !guard.owns_lock() && tries < last_line_limit.count(); ++tries) {
        (void)nanosleep(&millisecond, nullptr);
        (void)guard.try_lock();
    }
    if (guard.owns_lock()) {
        write(message, never_wait);
    }
}

void Log_writer::setSink(std::unique_ptr<Line_sink> sink) {
    stop(switch_limit);
    if (thread_.joinable()) {
        thread_.join();
    }
    const std::lock_guard sink_guard(sink_lock_);
    const std::lock_guard guard(lock_);
    wake_.reset();
    hang_up_.reset();
    sink_ = std::move(sink);
    stopping_ = false;
    idle_ = false;
    done_ = accepted_.load();
    stage_ = Stage::ARMED;
}

bool Log_writer::flush(Milliseconds limit) {
    std::unique_lock guard(lock_);
    const uint64_t wanted = accepted_ + (lost_ > 0 ? 1 : 0);
    return progress_.wait_for(guard, limit, [&] { return stage_ != Stage::QUEUED || done_ >= wanted; });
}

void Log_writer::finish(Milliseconds limit) {
    const bool ended = stop(limit);
    if (thread_.joinable() && ended) {
        thread_.join();
    } else if (thread_.joinable()) {
        thread_.detach(); // it hangs on a place that takes nothing, and ends with the process
    }
}

// True when the thread has ended, or is about to.
bool Log_writer::stop(Milliseconds limit) {
    std::unique_lock guard(lock_);
    if (stage_ != Stage::QUEUED) {
        return stage_ != Stage::CLOSED;
    }
    stopping_ = true;
    stop_by_ = Clock::now() + limit;
    wake();
    const bool ended = progress_.wait_until(guard, stop_by_, [this] { return stage_ != Stage::QUEUED; });
    if (!ended) {
        stage_ = Stage::CLOSED;
    }
    return ended;
}

void Log_writer::waitAfterCrash() const {
    for (int tries = 0; tries < 200 && done_ < accepted_; ++tries) {
        (void)nanosleep(&millisecond, nullptr);
    }
}

void Log_writer::startThread() {
    wake_.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    hang_up_ = hangUpDescriptor();
    stage_ = Stage::QUEUED;
    if (!wake_ || !corvane::base::startThread(thread_, own_tag, [this] { run(); })) {
        stage_ = Stage::DIRECT; // lines go out as long as nobody stalls
    }
}

void Log_writer::enqueue(spdlog::level::level_enum level, std::string_view tag, std::string_view text) {
    const auto now = spdlog::log_clock::now();
    tag = tag.substr(0, log_tag_capacity);
    const size_t report = lost_ > 0 ? sizeof(Line_head) : 0;
    if (!ring_.hasRoomFor(report + tag.size() + text.size())) {
        ++lost_;
        return;
    }
    if (lost_ > 0) {
        ring_.push({now, std::exchange(lost_, 0), level, 0, 0}, {}, {});
        ++accepted_;
    }
    ring_.push({now, 0, level, static_cast<uint16_t>(tag.size()), static_cast<uint16_t>(text.size())}, tag, text);
    ++accepted_;
}

void Log_writer::wake() const {
    const uint64_t one = 1;
    (void)!::write(wake_.get(), &one, sizeof one);
}

// ------------------------------------------------------------------------------------------------------- the thread

void Log_writer::run() {
    Log_line line;
    const auto wait_for_room = [this](int descriptor, bool pause) { return waitForRoom(descriptor, pause); };
    while (next(line)) {
        const std::lock_guard guard(sink_lock_);
        undelivered_ += line.head.lost;
        if (line.head.lost > 0) {
            reportLosses(wait_for_room);
        } else {
            write(messageOf(line), wait_for_room);
        }
        ++done_;
    }
}

// False when the thread has to end. Waking it costs more than a line, so the first of several waits for the others.
bool Log_writer::next(Log_line &line) {
    for (;;) {
        {
            const std::lock_guard guard(lock_);
            progress_.notify_all();
            const bool late = stopping_ && Clock::now() >= stop_by_;
            if (!late && take(line)) {
                return true;
            }
            if (stopping_) {
                stage_ = late ? Stage::CLOSED : Stage::DIRECT;
                return false;
            }
            idle_ = true;
        }
        wait(-1, -1);
        (void)nanosleep(&gather_time, nullptr);
    }
}

bool Log_writer::take(Log_line &line) {
    if (!ring_.empty()) {
        ring_.pop(line);
        return true;
    }
    line.head = {spdlog::log_clock::now(), std::exchange(lost_, 0), spdlog::level::warn, 0, 0};
    accepted_ += line.head.lost > 0 ? 1 : 0;
    return line.head.lost > 0;
}

// For room in the descriptor (-1: for nothing but these), a call to stop, more lines when idle, or SIGHUP.
void Log_writer::wait(int descriptor, int limit_ms) {
    std::array<pollfd, 3> watched = {{{wake_.get(), POLLIN, 0}, {hang_up_.get(), POLLIN, 0}, {descriptor, POLLOUT, 0}}};
    (void)poll(watched.data(), watched.size(), limit_ms);
    uint64_t ignored = 0;
    (void)!read(wake_.get(), &ignored, sizeof ignored);
    signalfd_siginfo signal{};
    if (read(hang_up_.get(), &signal, sizeof signal) > 0) {
        reopen();
    }
}

// False when there is no time left to wait.
bool Log_writer::waitForRoom(int descriptor, bool pause) {
    int limit_ms = -1;
    {
        const std::lock_guard guard(lock_);
        if (stopping_) {
            const auto left = std::chrono::duration_cast<Milliseconds>(stop_by_ - Clock::now()).count();
            limit_ms = static_cast<int>(std::max<int64_t>(left, 0));
        }
    }
    sink_lock_.unlock();
    if (pause) {
        wait(-1, limit_ms < 0 ? pause_ms : std::min(limit_ms, pause_ms));
    } else if (limit_ms != 0) {
        wait(descriptor, limit_ms);
    }
    sink_lock_.lock();
    return limit_ms != 0;
}

void Log_writer::reopen() {
    bool done = false;
    int reason = 0;
    {
        const std::lock_guard guard(sink_lock_);
        done = sink_->reopen();
        reason = errno;
    }
    std::array<char, 128> text{};
    (void)std::snprintf(text.data(), text.size(),
                        done ? "SIGHUP: the log goes on here" : "SIGHUP: the log cannot be opened anew: %s",
                        std::strerror(reason));
    log(done ? spdlog::level::info : spdlog::level::err, own_tag, text.data());
}

// ------------------------------------------------------------------------------------------------------- under
// sink_lock_

template <typename Wait>
void Log_writer::write(const spdlog::details::log_msg &message, Wait wait_for_room) {
    if (!reportLosses(wait_for_room) || !deliver(message, wait_for_room)) {
        ++undelivered_;
    }
}

template <typename Wait>
bool Log_writer::reportLosses(Wait wait_for_room) {
    if (undelivered_ == 0) {
        return true;
    }
    std::array<char, 64> text{};
    (void)std::snprintf(text.data(), text.size(), "%llu log lines dropped",
                        static_cast<unsigned long long>(undelivered_));
    if (!deliver({own_tag, spdlog::level::warn, text.data()}, wait_for_room)) {
        return false;
    }
    undelivered_ = 0;
    return true;
}

template <typename Wait>
bool Log_writer::deliver(const spdlog::details::log_msg &message, Wait wait_for_room) try {
    sink_->begin(message);
    for (bool pause = false;; pause = !pause) {
        switch (sink_->proceed()) {
        case Line_sink::Progress::OUT:
            return true;
        case Line_sink::Progress::LOST:
            return false;
        case Line_sink::Progress::NO_ROOM:
            if (!wait_for_room(sink_->descriptor(), pause)) {
                return false;
            }
        }
    }
} catch (const std::exception &) {
    return false; // no memory
}
