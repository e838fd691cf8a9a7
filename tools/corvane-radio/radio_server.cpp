// SPDX-License-Identifier: Apache-2.0
#include "radio_server.h"
#include "oru_log.h"
#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace corvane::coprocessor {

namespace {

constexpr char TAG[] = "radio";
constexpr uint64_t LONGEST_WAIT_US = 60'000'000;

uint64_t nowUs() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(now).count());
}

// Also when there is something left to be read.
bool hasHungUp(int host) {
    pollfd state{host, POLLRDHUP, 0};
    return host >= 0 && ::poll(&state, 1, 0) == 1;
}

} // namespace

RadioServer::RadioServer(const RadioOptions &options, HostPort &port)
    : port_(port), control_path_(options.control_path), wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      radio_(options.scenario, options.state_directory, nowUs, [this] { wake(); }),
      ncp_(options.ncp, options.memory, radio_) {
    ncp_.wire().setFaults(options.faults);
}

std::string RadioServer::start() {
    if (!wake_) {
        return "no descriptor is left";
    }
    std::string problem = port_.plug();
    if (!problem.empty()) {
        return problem;
    }
    plugged_ = true;
    ncp_.start(nowUs());
    if (!control_path_.empty()) {
        control_ = mesh::startControlServer(control_path_, [this](const std::string &line) { return answer(line); });
        if (control_ == nullptr) {
            return "no control socket at " + control_path_;
        }
    }
    return {};
}

void RadioServer::stop() {
    stopping_ = true;
    wake();
}

void RadioServer::wake() {
    const uint64_t one = 1;
    (void)!::write(wake_.get(), &one, sizeof one); // full only when it is awake anyhow
}

// ---- the loop

void RadioServer::run() {
    while (!stopping_) {
        plugAsWanted();
        await();
        const std::lock_guard lock(radio_.mutex());
        ncp_.tick(nowUs());
        writeHost();
    }
}

// For the host, the control socket or the next deadline.
void RadioServer::await() {
    const bool writing = mustWrite();
    const auto host_events = static_cast<short>(POLLIN | (writing ? POLLOUT : 0));
    std::array<pollfd, 3> events{pollfd{wake_.get(), POLLIN, 0}, pollfd{port_.listener(), POLLIN, 0},
                                 pollfd{port_.host(), host_events, 0}};
    if (::poll(events.data(), events.size(), waitMs(writing)) <= 0) {
        return;
    }
    if (events[0].revents != 0) {
        uint64_t count = 0;
        (void)!::read(wake_.get(), &count, sizeof count);
    }
    if (events[1].revents != 0) {
        if (hasHungUp(port_.host())) { // it may be the same host that comes again
            hostGone();
        }
        port_.acceptHost();
    } else if ((events[2].revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
        readHost();
    }
}

// What is due for the host could not be written at once.
bool RadioServer::mustWrite() {
    const std::lock_guard lock(radio_.mutex());
    return port_.host() >= 0 && !ncp_.wire().due(nowUs()).empty();
}

int RadioServer::waitMs(bool writing) {
    const std::lock_guard lock(radio_.mutex());
    const uint64_t now_us = nowUs();
    const uint64_t wire_us = writing ? UINT64_MAX : ncp_.wire().nextDueUs();
    const uint64_t next_us = std::clamp(std::min(ncp_.nextDeadlineUs(), wire_us), now_us, now_us + LONGEST_WAIT_US);
    return static_cast<int>((next_us - now_us + 999) / 1000);
}

void RadioServer::plugAsWanted() {
    const std::lock_guard lock(radio_.mutex());
    if (plug_wanted_ == plugged_) {
        return;
    }
    if (plugged_) {
        port_.unplug();
        ncp_.hostGone();
        oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_INFO, TAG, "unplugged");
        plugged_ = false;
        return;
    }
    if (const std::string problem = port_.plug(); !problem.empty()) {
        oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_ERROR, TAG, "cannot be plugged in: %s", problem.c_str());
        plug_wanted_ = false;
        return;
    }
    oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_INFO, TAG, "plugged in: %s", port_.name().c_str());
    plugged_ = true;
}

void RadioServer::readHost() {
    std::array<uint8_t, 4096> bytes;
    const ssize_t count = ::read(port_.host(), bytes.data(), bytes.size());
    if (count > 0) {
        const std::lock_guard lock(radio_.mutex());
        ncp_.feed(std::span(bytes).first(static_cast<size_t>(count)), nowUs());
    } else if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
        hostGone();
    }
}

// With the mutex held. What the host does not take waits; without a host everything is lost.
void RadioServer::writeHost() {
    const uint64_t now_us = nowUs();
    for (auto due = ncp_.wire().due(now_us); !due.empty(); due = ncp_.wire().due(now_us)) {
        if (port_.host() < 0) {
            ncp_.wire().clear();
            return;
        }
        const ssize_t count = ::write(port_.host(), due.data(), due.size());
        if (count <= 0) {
            return; // a host that has gone is noticed by reading
        }
        ncp_.wire().consumed(static_cast<size_t>(count));
    }
}

void RadioServer::hostGone() {
    port_.dropHost();
    const std::lock_guard lock(radio_.mutex());
    ncp_.hostGone();
    oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_INFO, TAG, "the host has gone");
}

// ---- from the control socket's thread

std::string RadioServer::answer(const std::string &line) {
    const std::optional<std::string> of_line = handleWireLine(line, *this);
    return of_line ? *of_line : mesh::handleControlLine(line, radio_.simulation());
}

WireFaults RadioServer::wireFaults() {
    const std::lock_guard lock(radio_.mutex());
    return ncp_.wire().faults();
}

void RadioServer::setWireFaults(const WireFaults &faults) {
    const std::lock_guard lock(radio_.mutex());
    ncp_.wire().setFaults(faults);
}

std::string RadioServer::lineEvent(LineEvent event, uint32_t value) {
    {
        const std::lock_guard lock(radio_.mutex());
        ncp_.tick(nowUs());
        switch (event) {
        case LineEvent::reset:
            ncp_.resetByItself(static_cast<uint8_t>(value));
            break;
        case LineEvent::error:
            ncp_.fail(static_cast<uint8_t>(value));
            break;
        case LineEvent::silence:
            ncp_.silence(value);
            break;
        case LineEvent::unplug:
        case LineEvent::replug:
            if (plug_wanted_ == (event == LineEvent::replug)) {
                return event == LineEvent::replug ? "the radio is plugged in" : "the radio is unplugged already";
            }
            plug_wanted_ = event == LineEvent::replug;
            break;
        }
    }
    wake();
    return {};
}

} // namespace corvane::coprocessor
