// SPDX-License-Identifier: Apache-2.0
//
// Who writes a line:
//
//   DIRECT ─ setSink ─► ARMED ─ next line ─► QUEUED ─ finish ─► DIRECT      everything is out
//                         ▲                    │           └──► CLOSED      a reader that stalls
//                         └────── setSink ─────┘
//
//   DIRECT  the caller, at once; what there is no room for is dropped. Start-up, which may be followed by a fork, and
//           what threads log after the end of main().
//   ARMED   the same place, but the next line starts the writer
//   QUEUED  a thread of its own. Callers only leave their lines in a ring; the thread waits for whoever reads slowly.
//   CLOSED  nobody
//
// Lines that do not fit into the ring or that their place does not take are counted; a line says how many there were,
// where they would have been as far as that is known.
#pragma once
#include "log_ring.h"
#include "log_sinks.h"
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>

class Log_writer {
public:
    using Clock = std::chrono::steady_clock;
    using Milliseconds = std::chrono::milliseconds;

    explicit Log_writer(std::unique_ptr<Line_sink> sink) : sink_(std::move(sink)) {}

    // Takes a line of any thread, in order, without waiting for anybody who reads. The text fits into a Log_line.
    void log(spdlog::level::level_enum level, std::string_view tag, std::string_view text);
    // The same for a line after which the process may be gone: the caller writes it, after those before it as far as
    // they get out, and is back after 0.2 s at the latest.
    void logAtOnce(spdlog::level::level_enum level, std::string_view tag, std::string_view text);

    // Lines from now on go to the new sink; those before have a second.
    void setSink(std::unique_ptr<Line_sink> sink);
    // True when every line that is in the ring now was written or given up within the limit.
    bool flush(Milliseconds limit);
    // For the end of main(): writes what is in the ring, within the limit, and ends the thread, or leaves it behind
    // where it is stuck; setSink would wait for it.
    void finish(Milliseconds limit);

    // Signal handler: gives the thread 0.2 s to write what is in the ring.
    void waitAfterCrash() const;

private:
    enum class Stage { DIRECT, ARMED, QUEUED, CLOSED };

    void startThread();
    bool stop(Milliseconds limit);
    void enqueue(spdlog::level::level_enum level, std::string_view tag, std::string_view text);
    void wake() const;

    // The thread
    void run();
    bool next(Log_line &line);
    bool take(Log_line &line);
    void wait(int descriptor, int limit_ms);
    bool waitForRoom(int descriptor, bool pause);
    void reopen();

    // Under sink_lock_. wait_for_room(descriptor, whether there was none right after waiting) is false to give up.
    template <typename Wait>
    void write(const spdlog::details::log_msg &message, Wait wait_for_room);
    template <typename Wait>
    bool reportLosses(Wait wait_for_room);
    template <typename Wait>
    bool deliver(const spdlog::details::log_msg &message, Wait wait_for_room);

    std::mutex lock_; // guards all up to sink_lock_; a leaf, held for the copy of one line at most
    Stage stage_ = Stage::DIRECT;
    Line_ring ring_;
    uint64_t lost_ = 0; // lines that came after the last one in the ring
    bool idle_ = false; // the thread waits to be woken
    bool stopping_ = false;
    Clock::time_point stop_by_;
    std::condition_variable progress_;
    std::thread thread_;

    std::mutex sink_lock_; // guards the sink and undelivered_; taken before lock_, not held while waiting for room
    std::unique_ptr<Line_sink> sink_;
    uint64_t undelivered_ = 0;

    corvane::base::Descriptor wake_;    // event descriptor
    corvane::base::Descriptor hang_up_; // signal descriptor of SIGHUP; none where there is none
    std::atomic<uint64_t> accepted_{0}; // lines for the thread, reports among them
    std::atomic<uint64_t> done_{0};     // those of them that were written or given up
};
