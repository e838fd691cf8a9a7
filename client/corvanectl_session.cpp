// SPDX-License-Identifier: Apache-2.0
#include "corvanectl_session.h"
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fmt/format.h>

namespace corvane::ctl {

namespace {

constexpr double MAX_TIMEOUT_S = 86400;

Exit exitOf(const Outcome &outcome) {
    switch (outcome.transport) {
    case Transport::Ok:
        return Exit::Refused;
    case Transport::NoService:
        return Exit::NoService;
    case Transport::Refused:
    case Transport::ConnectionLost:
    case Transport::OtherVersion:
        return Exit::ConnectionLost;
    case Transport::TimedOut:
        return Exit::TimedOut;
    case Transport::Invalid:
        return Exit::Usage;
    }
    return Exit::Refused;
}

} // namespace

const char *exitName(Exit exit) {
    switch (exit) {
    case Exit::Done:
        return "OK";
    case Exit::Refused:
        return "REFUSED";
    case Exit::Usage:
        return "USAGE";
    case Exit::NoService:
        return "NO_SERVICE";
    case Exit::ConnectionLost:
        return "CONNECTION_LOST";
    case Exit::TimedOut:
        return "TIMED_OUT";
    }
    return "";
}

Milliseconds Session::timeout() const {
    return Milliseconds(static_cast<int64_t>(std::clamp(settings.timeout_s, 0.0, MAX_TIMEOUT_S) * 1000));
}

std::string Session::socketPath() const {
    return settings.socket.empty() ? defaultSocketPath() : settings.socket;
}

std::string Session::simSocketPath() const {
    if (!settings.sim_socket.empty()) {
        return settings.sim_socket;
    }
    const char *own = std::getenv("CORVANE_SIM_SOCKET");
    return own != nullptr && *own != '\0'
               ? std::string(own)
               : (std::filesystem::path(socketPath()).parent_path() / "corvane-sim.sock").string();
}

Client &Session::client() {
    if (connected_) {
        return client_;
    }
    client_.onEvent([this](const Event &event) { live_ ? live_(event) : keep(event); });
    Options options;
    options.socket_path = socketPath();
    options.connect_timeout = timeout();
    options.call_timeout = timeout();
    options.completion_timeout = timeout();
    const Outcome outcome = client_.connect(options);
    if (outcome.transport == Transport::Invalid) {
        throw UsageError(fmt::format("\"{}\" is too long for the path of a socket", options.socket_path));
    }
    if (outcome.transport == Transport::NoService) {
        throw Failure(Exit::NoService, fmt::format("no service at {}: is corvane running, and may this user use the "
                                                   "socket?",
                                                   options.socket_path));
    }
    if (outcome.transport == Transport::Refused && outcome.status == ORU_STATUS_BUSY) {
        throw Failure(Exit::ConnectionLost, "the service has no place for another client now; end one and try again",
                      outcome.status, statusName(outcome.status));
    }
    require(outcome, "connecting to " + options.socket_path);
    connected_ = true;
    return client_;
}

void Session::fail(const Outcome &outcome, std::string_view what) const {
    const std::string message = fmt::format("{}: {}", what, outcome.describe());
    const bool has_status = outcome.status != ORU_STATUS_OK;
    Failure failure(exitOf(outcome), message);
    if (has_status) {
        failure.status = outcome.status;
        failure.status_name = statusName(outcome.status);
    }
    throw failure;
}

void Session::require(const Outcome &outcome, std::string_view what) const {
    if (!outcome.ok()) {
        fail(outcome, what);
    }
}

void Session::complete(std::string_view what, const std::function<Outcome(Client &, Completion)> &call) {
    std::optional<Outcome> completed;
    require(call(client(), [&](const Outcome &outcome) { completed = outcome; }), what);
    // The library times the call out by itself; the second on top only guards against waiting for ever.
    client_.pollUntil([&] { return completed || !client_.connected(); }, timeout() + Milliseconds(1000));
    client_.poll(Milliseconds(0)); // the completion of a lost connection may still wait for delivery
    require(completed.value_or(Outcome{Transport::ConnectionLost, ORU_STATUS_OK}), what);
}

bool Session::poll(const std::function<bool()> &done, Milliseconds wait) {
    bool reached = false;
    client().pollUntil([&] { return (reached = done()) || !client_.connected(); }, wait);
    if (!reached && !client_.connected()) {
        throw Failure(Exit::ConnectionLost, "the service ended the connection; has it been stopped?");
    }
    return reached;
}

void Session::keep(const Event &event) {
    if (events_.size() == MAX_KEPT) {
        events_.pop_front();
    }
    events_.push_back({event.id, {event.payload.begin(), event.payload.end()}});
}

std::optional<StoredEvent> Session::waitEvent(const EventFilter &filter, Milliseconds wait) {
    std::optional<StoredEvent> found;
    const auto look = [&] {
        const auto match = std::ranges::find_if(events_, [&](const auto &event) { return filter(event.view()); });
        if (match != events_.end()) {
            found = std::move(*match);
            events_.erase(match);
        }
        return found.has_value();
    };
    poll(look, wait);
    return found;
}

std::string describeRef(const DeviceRef &ref) {
    if (const auto *node_id = std::get_if<uint16_t>(&ref)) {
        return hexUpper(*node_id);
    }
    if (const auto *eui64 = std::get_if<Eui64>(&ref)) {
        return formatEui64(eui64->data());
    }
    return fmt::format("#{}", std::get<uint32_t>(ref));
}

oruZb_device_t Session::findDevice(const DeviceRef &ref) {
    Client &service = client();
    Result<oruZb_device_t> result;
    if (const auto *node_id = std::get_if<uint16_t>(&ref)) {
        result = service.deviceByNodeId(*node_id);
    } else if (const auto *eui64 = std::get_if<Eui64>(&ref)) {
        result = service.deviceByEui64(*eui64);
    } else {
        result = service.deviceByIndex(std::get<uint32_t>(ref));
    }
    if (result.answered() && result.status == ORU_STATUS_NOT_FOUND) {
        throw Failure(
            Exit::Refused,
            fmt::format("the service knows no device {}; \"corvanectl devices\" lists them", describeRef(ref)),
            result.status, statusName(result.status));
    }
    return value(result, "device " + describeRef(ref));
}

void Session::answer(const Json &object, std::string_view text) const {
    if (settings.json) {
        printJson(object);
    } else {
        printLine(text);
    }
}

} // namespace corvane::ctl
